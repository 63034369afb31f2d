# Cross build for 64-bit Arm Linux with Debian's cross compiler and the
# :arm64 packages of the dependencies (multiarch, under /usr):
#   cmake -S . -B build-arm64 -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/aarch64-linux-gnu.cmake
# Programs built here (the test binaries when tests are listed and run) go
# through qemu-aarch64.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64)

# Multiarch: the target's libraries and CMake packages sit beside the host's
# under /usr, in aarch64-linux-gnu directories, so the search stays on the
# host tree (no sysroot) and CMAKE_LIBRARY_ARCHITECTURE picks the right ones.
# pkg-config must read only the target's .pc files.
set(ENV{PKG_CONFIG_LIBDIR} "/usr/lib/aarch64-linux-gnu/pkgconfig:/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_PATH} "")
