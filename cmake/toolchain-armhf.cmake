# Cross-compiles for the board: 32-bit ARM, hard float (Debian armhf), against
# the sysroot that scripts/cross-armhf builds. VIDEOD_ARMHF_SYSROOT names it.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(triple arm-linux-gnueabihf)

if(NOT VIDEOD_ARMHF_SYSROOT)
  set(VIDEOD_ARMHF_SYSROOT "$ENV{VIDEOD_ARMHF_SYSROOT}")
endif()
if(NOT IS_DIRECTORY "${VIDEOD_ARMHF_SYSROOT}")
  message(FATAL_ERROR "VIDEOD_ARMHF_SYSROOT does not name the armhf sysroot (run scripts/cross-armhf)")
endif()
# Carried into try_compile projects, which re-read this file.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES VIDEOD_ARMHF_SYSROOT)

set(CMAKE_C_COMPILER ${triple}-gcc)
set(CMAKE_CXX_COMPILER ${triple}-g++)
set(CMAKE_SYSROOT "${VIDEOD_ARMHF_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH "${VIDEOD_ARMHF_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(CMAKE_LIBRARY_ARCHITECTURE ${triple})

# Libraries of the sysroot refer to each other by their installed paths.
set(link_dirs "${VIDEOD_ARMHF_SYSROOT}/lib/${triple}" "${VIDEOD_ARMHF_SYSROOT}/usr/lib/${triple}")
foreach(dir ${link_dirs})
  string(APPEND CMAKE_EXE_LINKER_FLAGS_INIT " -Wl,-rpath-link,${dir}")
  string(APPEND CMAKE_SHARED_LINKER_FLAGS_INIT " -Wl,-rpath-link,${dir}")
  string(APPEND CMAKE_MODULE_LINKER_FLAGS_INIT " -Wl,-rpath-link,${dir}")
endforeach()

set(ENV{PKG_CONFIG_SYSROOT_DIR} "${VIDEOD_ARMHF_SYSROOT}")
set(ENV{PKG_CONFIG_LIBDIR}
    "${VIDEOD_ARMHF_SYSROOT}/usr/lib/${triple}/pkgconfig:${VIDEOD_ARMHF_SYSROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_PATH} "")

# Tests run under user-mode emulation with the sysroot as library prefix.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm-static -L "${VIDEOD_ARMHF_SYSROOT}")
