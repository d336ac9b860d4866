# What the toolchain files have in common. The compiler brings its own C and C++ libraries; MIRADO_SYSROOT has the other
# foreign libraries. Libraries of headers alone are the build machine's.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_CXX_COMPILER ${MIRADO_TRIPLET}-g++)
set(CMAKE_STRIP ${MIRADO_TRIPLET}-strip)

list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES MIRADO_SYSROOT)
set(CMAKE_FIND_ROOT_PATH ${MIRADO_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)

set(CMAKE_CROSSCOMPILING_EMULATOR ${MIRADO_EMULATOR} -L /usr/${MIRADO_TRIPLET}
    -E LD_LIBRARY_PATH=${MIRADO_SYSROOT}/usr/lib/${MIRADO_TRIPLET})

# Compiling for ARM, GCC 12 takes the text of a variant in an optional for possibly uninitialized where it is not. The
# release for the build machine is compiled with this warning. For 32 bits it also notes what GCC 7 passed otherwise.
set(CMAKE_CXX_FLAGS_INIT "-Wno-maybe-uninitialized -Wno-psabi")

# Where the linker finds what the libraries that it is given need themselves. Only a first configuration takes this.
foreach(kind EXE SHARED MODULE)
  set(CMAKE_${kind}_LINKER_FLAGS_INIT -Wl,-rpath-link,${MIRADO_SYSROOT}/usr/lib/${MIRADO_TRIPLET})
endforeach()
