# Sourced by the MTP benchmark scripts.
# instances_of HOME: true while a quillbox of that QUILLBOX_HOME still runs.
instances_of() {
  local p
  for p in $(pgrep -x quillbox); do
    { tr '\0' '\n' <"/proc/$p/environ"; } 2>/dev/null | grep -qx "QUILLBOX_HOME=$1" && return 0
  done
  return 1
}
# await_instances_end HOME: waits, at most 10 s, until none runs.
await_instances_end() {
  local i
  for i in $(seq 200); do instances_of "$1" || return 0; sleep 0.05; done
  return 1
}
