# Toolchain file: 32-bit (i386, ELF32) by this machine's own amd64 GCC (-m32) and
# the sysroot of i386-sysroot.sh. Sysroot: -DI386_SYSROOT, else $I386_SYSROOT, else
# "sysroot" beside this file; no spaces in paths. Programs get the sysroot's
# dynamic linker and an RPATH into it, so they run as they are, with one glibc,
# libstdc++ and libgcc. For what leaves this machine: -DI386_RUN_FROM_SYSROOT=OFF.
if(NOT I386_SYSROOT AND DEFINED ENV{I386_SYSROOT})
  set(I386_SYSROOT "$ENV{I386_SYSROOT}")
elseif(NOT I386_SYSROOT)
  set(I386_SYSROOT "${CMAKE_CURRENT_LIST_DIR}/sysroot")
endif()
get_filename_component(I386_SYSROOT "${I386_SYSROOT}" REALPATH BASE_DIR "${CMAKE_SOURCE_DIR}")
set(I386_SYSROOT "${I386_SYSROOT}" CACHE PATH "i386 sysroot made by i386-sysroot.sh")
if(NOT DEFINED I386_RUN_FROM_SYSROOT)
  set(I386_RUN_FROM_SYSROOT ON)
endif()
if(NOT DEFINED I386_CPU)   # doubles as on x86-64; empty: plain i686, x87 excess precision
  set(I386_CPU "-msse2 -mfpmath=sse")
endif()
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES I386_SYSROOT I386_RUN_FROM_SYSROOT I386_CPU)
if(NOT EXISTS "${I386_SYSROOT}/.i386-sysroot")
  message(FATAL_ERROR "No i386 sysroot at ${I386_SYSROOT}: run i386-sysroot.sh ${I386_SYSROOT}")
endif()

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR i686)
set(CMAKE_CROSSCOMPILING FALSE)   # built programs run here: try_run, ctest need no emulator
if(NOT CMAKE_C_COMPILER AND NOT DEFINED ENV{CC})
  set(CMAKE_C_COMPILER gcc)
endif()
if(NOT CMAKE_CXX_COMPILER AND NOT DEFINED ENV{CXX})
  set(CMAKE_CXX_COMPILER g++)
endif()

set(CMAKE_SYSROOT "${I386_SYSROOT}")
file(GLOB _gcc LIST_DIRECTORIES TRUE "${I386_SYSROOT}/usr/lib/gcc/i686-linux-gnu/[0-9]*")
get_filename_component(_ver "${_gcc}" NAME)
set(_inc "${I386_SYSROOT}/usr/include")
set(_libs "${I386_SYSROOT}/lib/i386-linux-gnu:${I386_SYSROOT}/usr/lib/i386-linux-gnu")
# Debian's i386 libACE has 64-bit off_t and 32-bit time_t: so has this. Never add
# -D_TIME_BITS=64: ACE's timeouts would then silently expire at once.
set(CMAKE_C_FLAGS_INIT "-m32 ${I386_CPU} -B${_gcc} -D_FILE_OFFSET_BITS=64")
set(CMAKE_CXX_FLAGS_INIT "${CMAKE_C_FLAGS_INIT} -nostdinc++ -isystem ${_inc}/c++/${_ver} -isystem ${_inc}/i386-linux-gnu/c++/${_ver} -isystem ${_inc}/c++/${_ver}/backward")
set(CMAKE_ASM_FLAGS_INIT "-m32 -B${_gcc}")
set(_link "-Wl,-rpath-link,${_libs}")
set(_interp "")
if(I386_RUN_FROM_SYSROOT)   # DT_RPATH, not RUNPATH: it also serves libcurl's own needs and plugins
  string(APPEND _link " -Wl,--disable-new-dtags -Wl,-rpath,${_libs}")
  set(_interp " -Wl,--dynamic-linker=${I386_SYSROOT}/lib/ld-linux.so.2")
endif()
set(CMAKE_EXE_LINKER_FLAGS_INIT "${_link}${_interp}")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "${_link}")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "${_link}")

set(CMAKE_FIND_ROOT_PATH "${I386_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_PATH} "")   # pkg-config, for the configure step
set(ENV{PKG_CONFIG_LIBDIR} "${I386_SYSROOT}/usr/lib/i386-linux-gnu/pkgconfig:${I386_SYSROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${I386_SYSROOT}")
