# 64-bit ARM on Debian; script/cross makes the folder of foreign libraries.
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(MIRADO_TRIPLET aarch64-linux-gnu)
set(MIRADO_EMULATOR qemu-aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)
