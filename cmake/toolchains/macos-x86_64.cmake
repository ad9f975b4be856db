# macOS 14 on Intel.
set(NETVANE_MACOS_ARCH x86_64)
include(${CMAKE_CURRENT_LIST_DIR}/macos.cmake)
