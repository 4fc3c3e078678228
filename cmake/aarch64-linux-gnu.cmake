# Cross build for 64-bit Arm on Debian: the cross compiler plus the :arm64 packages, which lie in
# their own multiarch folders beside those of the host.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
# Whoever asks pkg-config would be told of the host's own packages.
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/${CMAKE_LIBRARY_ARCHITECTURE}/pkgconfig)

# The tests run here by user emulation; the loader and the libraries are found at their places.
set(CMAKE_CROSSCOMPILING_EMULATOR /usr/bin/qemu-aarch64-static)
