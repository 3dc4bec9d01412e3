# Sourced by the benches: private_bus DIR starts a system bus of their own in DIR (one that lets
# anyone own and call anything, and carries large answers), exports DBUS_SYSTEM_BUS_ADDRESS and
# adds the daemon to the caller's `pids`.
private_bus() {
  cat > "$1/bus.conf" <<CONF
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-BUS Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig><type>system</type><listen>unix:dir=$1</listen><auth>EXTERNAL</auth>
<limit name="max_incoming_bytes">1000000000</limit><limit name="max_outgoing_bytes">1000000000</limit>
<policy context="default"><allow user="*"/><allow own="*"/><allow send_destination="*"/>
<allow receive_sender="*"/></policy></busconfig>
CONF
  exec 3< <(exec dbus-daemon --nofork --config-file="$1/bus.conf" --print-address=1)
  pids+=($!)
  local address
  read -r address <&3
  export DBUS_SYSTEM_BUS_ADDRESS=$address
}

# wait_for_names NAME...: until each is owned on the bus (at most ten seconds).
wait_for_names() {
  for _ in $(seq 100); do
    local all=1
    for name in "$@"; do busctl --system status "$name" >/dev/null 2>&1 || all=0; done
    ((all)) && return 0
    sleep 0.1
  done
  return 1
}
