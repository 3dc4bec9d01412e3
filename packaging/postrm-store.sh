# The recording it served goes with the package's purge.
if [ "$1" = purge ]; then
  rm -rf "${DPKG_ROOT:-}/var/lib/recording_store"
fi
