# Cross build for 64-bit Arm Linux (Android devices, arm64 boards) with Debian's
# g++-aarch64-linux-gnu. Libraries come from Debian's arm64 packages installed through multiarch
# (dpkg --add-architecture arm64), which live in /usr/lib/aarch64-linux-gnu.
#   cmake -S . -B build-arm64 -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.toolchain.cmake \
#         -DZAVRA_STATIC=ON -DBUILD_TESTING=OFF -DZAVRA_BENCH=OFF
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)

set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)

# The host's own libraries sit in /usr/lib/x86_64-linux-gnu, which an aarch64 search never
# visits; the arm64 ones are found through the library architecture above.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)

# pkg-config must read the arm64 package files, not the host's.
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/aarch64-linux-gnu/pkgconfig:/usr/share/pkgconfig)

# Programs built here run on this machine under user-mode emulation, where it is installed.
find_program(ZAVRA_QEMU_AARCH64 qemu-aarch64-static)
if(ZAVRA_QEMU_AARCH64)
    set(CMAKE_CROSSCOMPILING_EMULATOR ${ZAVRA_QEMU_AARCH64})
endif()
