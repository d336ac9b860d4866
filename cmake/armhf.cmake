# 32-bit ARM with hardware floating point on Debian; script/cross makes the folder of foreign libraries.
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(MIRADO_TRIPLET arm-linux-gnueabihf)
set(MIRADO_EMULATOR qemu-arm)
include(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)
