# Debian arm64 (64-bit ARM): cmake -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-arm64.cmake
set(TARVO_CROSS_ARCH arm64)
set(TARVO_CROSS_TRIPLET aarch64-linux-gnu)
set(TARVO_CROSS_PROCESSOR aarch64)
set(TARVO_CROSS_QEMU qemu-aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/toolchain-cross.cmake)
