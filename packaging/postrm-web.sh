if [ "$1" = purge ]; then
  rm -f "${DPKG_ROOT:-}/etc/recording-search/web-tokens"
  rmdir "${DPKG_ROOT:-}/etc/recording-search" 2>/dev/null || true
fi
