# Common part of the toolchain files. The compiler has its own C and C++ libraries; MIRADO_SYSROOT contains the other
# foreign libraries. Header-only libraries are those of the build machine.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_CXX_COMPILER ${MIRADO_TRIPLET}-g++)
set(CMAKE_STRIP ${MIRADO_TRIPLET}-strip)

list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES MIRADO_SYSROOT)
set(CMAKE_FIND_ROOT_PATH ${MIRADO_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)

set(CMAKE_CROSSCOMPILING_EMULATOR ${MIRADO_EMULATOR} -L /usr/${MIRADO_TRIPLET}
    -E LD_LIBRARY_PATH=${MIRADO_SYSROOT}/usr/lib/${MIRADO_TRIPLET})

# For ARM, GCC 12 wrongly warns that the text of a variant in an optional may be uninitialized. The build for the build
# machine keeps this warning. For 32 bits it also reports arguments that GCC 7 passed in another way.
set(CMAKE_CXX_FLAGS_INIT "-Wno-maybe-uninitialized -Wno-psabi")

# Where the linker finds the dependencies of the given libraries. Used only by the first configuration of a build tree.
foreach(kind EXE SHARED MODULE)
  set(CMAKE_${kind}_LINKER_FLAGS_INIT -Wl,-rpath-link,${MIRADO_SYSROOT}/usr/lib/${MIRADO_TRIPLET})
endforeach()
