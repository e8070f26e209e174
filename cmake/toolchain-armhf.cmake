# Cross build for 32-bit ARM Linux (armhf) with Debian's arm-linux-gnueabihf
# toolchain; target binaries run under qemu-arm, so ctest works as on the host.
# scripts/armhf-sysroot.sh installs the tools and prepares the sysroot folder.
#
# The sysroot folder holds only the target's third-party libraries (SQLite,
# GoogleTest). It is not passed to the compiler as --sysroot: the cross
# compiler's own libc and libstdc++ live in /usr/arm-linux-gnueabihf.
#
# Sysroot folder: -DANALYTICSDB_ARMHF_SYSROOT=..., else the environment variable
# of that name, else build-armhf-sysroot beside this file's parent folder.
# A relative path is taken from the top source folder.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
set(_adb_triplet arm-linux-gnueabihf)

set(CMAKE_C_COMPILER ${_adb_triplet}-gcc)
set(CMAKE_CXX_COMPILER ${_adb_triplet}-g++)

if(ANALYTICSDB_ARMHF_SYSROOT)
  set(_adb_sysroot "${ANALYTICSDB_ARMHF_SYSROOT}")
elseif(DEFINED ENV{ANALYTICSDB_ARMHF_SYSROOT} AND NOT "$ENV{ANALYTICSDB_ARMHF_SYSROOT}" STREQUAL "")
  set(_adb_sysroot "$ENV{ANALYTICSDB_ARMHF_SYSROOT}")
else()
  set(_adb_sysroot "${CMAKE_CURRENT_LIST_DIR}/../build-armhf-sysroot")
endif()
file(REAL_PATH "${_adb_sysroot}" _adb_sysroot)
set(ANALYTICSDB_ARMHF_SYSROOT "${_adb_sysroot}" CACHE PATH
    "Folder with the target's libraries, unpacked by scripts/armhf-sysroot.sh" FORCE)
# try_compile projects re-read this file without the cache: hand the value on.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES ANALYTICSDB_ARMHF_SYSROOT)

if(NOT EXISTS "${_adb_sysroot}/usr/include/sqlite3.h")
  message(FATAL_ERROR "armhf sysroot not prepared in ${_adb_sysroot}: "
                      "run scripts/armhf-sysroot.sh \"${_adb_sysroot}\"")
endif()

# GCC notes on ARM that the passing of some std types changed in GCC 7.1; everything here is
# built by one compiler, so the notes say nothing about this build and only bury real warnings.
set(CMAKE_CXX_FLAGS_INIT "-Wno-psabi")

# Libraries, headers and CMake packages come from the sysroot or the cross
# toolchain only, never from the host; programs only from the host.
set(CMAKE_FIND_ROOT_PATH "${_adb_sysroot}" /usr/${_adb_triplet})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# -L for projects that link a library by bare name; -rpath-link so the linker
# can resolve what the sysroot's shared libraries themselves depend on.
set(_adb_libdirs "")
set(_adb_ldflags "")
foreach(_dir IN ITEMS "${_adb_sysroot}/usr/lib/${_adb_triplet}" "${_adb_sysroot}/lib/${_adb_triplet}")
  if(IS_DIRECTORY "${_dir}")
    list(APPEND _adb_libdirs "${_dir}")
    string(APPEND _adb_ldflags " -L${_dir} -Wl,-rpath-link,${_dir}")
  endif()
endforeach()
foreach(_kind IN ITEMS EXE SHARED MODULE)
  set(CMAKE_${_kind}_LINKER_FLAGS_INIT "${_adb_ldflags}")
endforeach()

# pkg-config (FindPkgConfig) should also read the target's .pc files.
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${_adb_sysroot}")
set(ENV{PKG_CONFIG_LIBDIR} "${_adb_sysroot}/usr/lib/${_adb_triplet}/pkgconfig:${_adb_sysroot}/usr/share/pkgconfig")

# add_test() and gtest_discover_tests() prefix target binaries with this.
# qemu's -L makes the guest's dynamic loader and libc resolve to the cross
# toolchain's copies; -E gives the guest alone an LD_LIBRARY_PATH to the
# sysroot's shared libraries (SQLite), leaving the host's tools untouched.
string(REPLACE ";" ":" _adb_ld_path "${_adb_libdirs}")
find_program(ANALYTICSDB_QEMU_ARM NAMES qemu-arm qemu-arm-static)
if(ANALYTICSDB_QEMU_ARM)
  set(CMAKE_CROSSCOMPILING_EMULATOR
      "${ANALYTICSDB_QEMU_ARM}" -L /usr/${_adb_triplet}
      -E "LD_LIBRARY_PATH=${_adb_ld_path}")
else()
  message(WARNING "qemu-arm not found: armhf binaries build but tests cannot run "
                  "(scripts/armhf-sysroot.sh installs it)")
endif()
