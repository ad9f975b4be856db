# The port list: each seam is a portable header whose functions every OS
# implements, in the component's folder for that OS, in a file named after
# the seam (README.md, "Porting to another OS", says what each one is). An OS
# that lacks any of them stops the configure step, after every missing piece
# is listed, so that a new port starts from the whole checklist rather than
# from link errors. Each row: what | component folder | file (@OS@ stands for
# the OS's folder name; any extension).
set(NETVANE_PORT_SEAMS
  "kernel shim (nv_shim.h)|netcore/shim|nv_@OS@_*"
  "tunnel owner record (nv_utun_owner.h)|netcore/shim|nv_utun_owner"
  "interface address list (platform_address_list.h)|netcore/interfaces|platform_address_list"
  "dynamic store (dynamic_store.h)|netcore/sysconfig|dynamic_store"
  "network interface list (network_interface_list.h)|netcore/sysconfig|network_interface_list"
  "network preferences (network_preferences.h)|netcore/sysconfig|network_preferences"
  "tunnel owners' processes and bundles (tunnel_owners.h)|netcore/sysconfig|tunnel_owners"
  "byte stream (byte_stream.h)|netcore/publicip|byte_stream"
  "attempt waiter (attempt_waiter.h)|netcore/publicip|attempt_waiter"
  "cryptography (crypto.h)|support|crypto"
  "descriptors (descriptors.h)|support|descriptors"
  "file space (file_space.h)|support|file_space"
  "log (log.h)|support|log"
  "memory (memory.h)|support|memory"
  "regular files (open_regular.h)|support|open_regular"
  "IPC listener (ipc/server.h)|support/ipc|*"
  "authorizer (authorizer.h)|daemon|authorizer"
  "pairing file location (pairing_store.h)|daemon|pairing_location"
  "daemon entry point|daemon|main"
  "admin channel (admin_clients.h)|admin_protocol|*_channel"
  "admin transport (admin_transport.h)|tools/netvane/commands|admin_transport")

# Fails the configure step (once everything has been looked at) for a piece
# the OS being configured lacks.
function(netvane_port_missing what)
  message(SEND_ERROR "Netvane has no ${what} for '${NETVANE_OS}': see \"Porting to another OS\" in README.md")
endfunction()

foreach(row IN LISTS NETVANE_PORT_SEAMS)
  string(REPLACE "|" ";" fields "${row}")
  list(GET fields 0 what)
  list(GET fields 1 folder)
  list(GET fields 2 file)
  string(REPLACE "@OS@" "${NETVANE_OS}" file "${file}")
  file(GLOB found "${PROJECT_SOURCE_DIR}/${folder}/${NETVANE_OS}/${file}.*")
  if(NOT found)
    netvane_port_missing("${what} in ${folder}/${NETVANE_OS}/")
  endif()
endforeach()
