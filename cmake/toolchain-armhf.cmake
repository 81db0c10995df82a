# Debian armhf (32-bit ARM, hard float), as on the television: cmake -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-armhf.cmake
set(TARVO_CROSS_ARCH armhf)
set(TARVO_CROSS_TRIPLET arm-linux-gnueabihf)
set(TARVO_CROSS_PROCESSOR arm)
set(TARVO_CROSS_QEMU qemu-arm)
# 64-bit time_t and off_t: timestamps stay right past 2038. No library we call takes a time_t or
# an off_t from us (SQLite, libcurl, libxml2, JsonCpp, OpenSSL as we use them), so their ABI holds.
# -Wno-psabi: GCC's notes that arguments are passed differently than by GCC before 7.1, which
# built nothing here.
set(CMAKE_C_FLAGS_INIT "-D_FILE_OFFSET_BITS=64 -D_TIME_BITS=64 -Wno-psabi")
set(CMAKE_CXX_FLAGS_INIT "-D_FILE_OFFSET_BITS=64 -D_TIME_BITS=64 -Wno-psabi")
include(${CMAKE_CURRENT_LIST_DIR}/toolchain-cross.cmake)
