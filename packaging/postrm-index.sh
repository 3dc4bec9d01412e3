# The index goes with the package's purge: it is rebuilt from the recording anyway.
if [ "$1" = purge ]; then
  rm -rf "${DPKG_ROOT:-}/var/lib/recording_index"
fi
