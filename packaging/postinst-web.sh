# The gateway's token file: made on first installation, kept on upgrades; the token itself is
# never printed, only where it is.
tokens="${DPKG_ROOT:-}/etc/recording-search/web-tokens"
if [ "$1" = configure ] && [ ! -e "$tokens" ]; then
  mkdir -p "${tokens%/*}"
  (umask 027 && head -c 32 /dev/urandom | base64 | tr -d '/+=\n' >"$tokens" && echo >>"$tokens")
  group=$(sed -n 's/^recording-search-web:[^:]*:\([0-9]*\):.*/\1/p' "${DPKG_ROOT:-}/etc/group")
  chown "0:$group" "$tokens"
  chmod 0640 "$tokens"
  echo "recording-search-web: made an access token in /etc/recording-search/web-tokens"
fi
