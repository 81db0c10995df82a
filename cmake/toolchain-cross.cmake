# Shared part of the cross toolchains: expects TARVO_CROSS_TRIPLET, TARVO_CROSS_PROCESSOR,
# TARVO_CROSS_ARCH (Debian's name) and TARVO_CROSS_QEMU set by the including file.
# The target's libraries come from a sysroot of Debian packages that scripts/cross.sh unpacks
# (TARVO_SYSROOT in the environment, or build/sysroot/ARCH); programs run under qemu-user.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR ${TARVO_CROSS_PROCESSOR})
set(CMAKE_LIBRARY_ARCHITECTURE ${TARVO_CROSS_TRIPLET})

if(DEFINED ENV{TARVO_SYSROOT})
  set(TARVO_SYSROOT $ENV{TARVO_SYSROOT})
else()
  get_filename_component(TARVO_SYSROOT "${CMAKE_CURRENT_LIST_DIR}/../build/sysroot/${TARVO_CROSS_ARCH}" ABSOLUTE)
endif()
if(NOT EXISTS "${TARVO_SYSROOT}/usr/include")
  message(FATAL_ERROR "no sysroot at ${TARVO_SYSROOT}: scripts/cross.sh ${TARVO_CROSS_ARCH} makes it")
endif()

set(CMAKE_C_COMPILER ${TARVO_CROSS_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${TARVO_CROSS_TRIPLET}-g++)
set(CMAKE_SYSROOT ${TARVO_SYSROOT})
set(CMAKE_FIND_ROOT_PATH ${TARVO_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# pkg-config reads only the target's .pc files and prefixes their paths with the sysroot.
set(ENV{PKG_CONFIG_DIR} "")
set(ENV{PKG_CONFIG_LIBDIR}
  "${TARVO_SYSROOT}/usr/lib/${TARVO_CROSS_TRIPLET}/pkgconfig:${TARVO_SYSROOT}/usr/lib/pkgconfig:${TARVO_SYSROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${TARVO_SYSROOT})

# The sysroot's libraries live in /lib and /usr/lib/TRIPLET, which the linker searches only
# for direct dependencies; -rpath-link lets it resolve the libraries those pull in.
set(TARVO_CROSS_LINK_FLAGS
  "-Wl,-rpath-link,${TARVO_SYSROOT}/lib/${TARVO_CROSS_TRIPLET} -Wl,-rpath-link,${TARVO_SYSROOT}/usr/lib/${TARVO_CROSS_TRIPLET}")
set(CMAKE_EXE_LINKER_FLAGS_INIT "${TARVO_CROSS_LINK_FLAGS}")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "${TARVO_CROSS_LINK_FLAGS}")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "${TARVO_CROSS_LINK_FLAGS}")

# ctest and gtest_discover_tests start the target's programs through qemu-user.
find_program(TARVO_QEMU ${TARVO_CROSS_QEMU} PATHS /usr/bin NO_DEFAULT_PATH)
if(TARVO_QEMU)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${TARVO_QEMU} -L ${TARVO_SYSROOT})
endif()
