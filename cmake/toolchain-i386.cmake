# 32-bit x86 build on an x86_64 Debian machine with g++-multilib. VEK_I386_ROOT
# is the folder scripts/i386-sysroot.sh filled: unpacked i386 OpenSSL and
# SQLite packages and an i386 GoogleTest.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR i686)
set(CMAKE_C_COMPILER gcc)
set(CMAKE_CXX_COMPILER g++)
# SSE2 arithmetic keeps doubles at 64 bits instead of the x87 unit's 80, so
# conversions and JSON numbers come out the same on both widths.
set(VEK_I386_FLAGS "-m32 -msse2 -mfpmath=sse")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES VEK_I386_ROOT)
if(NOT VEK_I386_ROOT)
  message(FATAL_ERROR "set VEK_I386_ROOT to the folder made by scripts/i386-sysroot.sh")
endif()
set(VEK_I386_LIBDIR ${VEK_I386_ROOT}/root/usr/lib/i386-linux-gnu)
set(CMAKE_C_FLAGS_INIT "${VEK_I386_FLAGS} -isystem ${VEK_I386_ROOT}/root/usr/include/i386-linux-gnu")
set(CMAKE_CXX_FLAGS_INIT "${VEK_I386_FLAGS} -isystem ${VEK_I386_ROOT}/root/usr/include/i386-linux-gnu")
set(CMAKE_EXE_LINKER_FLAGS_INIT "-m32 -Wl,-rpath-link,${VEK_I386_LIBDIR}")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-m32 -Wl,-rpath-link,${VEK_I386_LIBDIR}")
set(OPENSSL_INCLUDE_DIR ${VEK_I386_ROOT}/root/usr/include CACHE PATH "")
set(OPENSSL_SSL_LIBRARY ${VEK_I386_LIBDIR}/libssl.so CACHE FILEPATH "")
set(OPENSSL_CRYPTO_LIBRARY ${VEK_I386_LIBDIR}/libcrypto.so CACHE FILEPATH "")
list(APPEND CMAKE_PREFIX_PATH ${VEK_I386_ROOT}/gtest)
set(CMAKE_LIBRARY_ARCHITECTURE i386-linux-gnu)
