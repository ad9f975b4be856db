# macOS 14 on Apple silicon.
set(NETVANE_MACOS_ARCH arm64)
include(${CMAKE_CURRENT_LIST_DIR}/macos.cmake)
