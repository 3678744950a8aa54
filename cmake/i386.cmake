# The 32-bit build: Debian's multilib compilers with -m32 and Debian's i386
# libraries unpacked into a folder of their own by scripts/i386-root (default
# build/i386-root, or VT_I386_ROOT in the environment).
#
#   scripts/setup m32 && scripts/i386-root
#   cmake -S . -B build/m32 -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/i386.cmake
#
# Not a cross build as CMake sees it: the programs run on this machine (where
# the kernel cannot run 32-bit code, scripts/setup m32 has it hand them to an
# emulator), so the tests are found and run as usual.
if(DEFINED ENV{VT_I386_ROOT})
    set(VT_I386_ROOT "$ENV{VT_I386_ROOT}")
else()
    get_filename_component(VT_I386_ROOT "${CMAKE_CURRENT_LIST_DIR}/../build/i386-root" ABSOLUTE)
endif()
set(VT_I386_LIBDIR "${VT_I386_ROOT}/usr/lib/i386-linux-gnu")
if(NOT EXISTS "${VT_I386_LIBDIR}/pkgconfig/glib-2.0.pc")
    message(FATAL_ERROR "No i386 libraries in ${VT_I386_ROOT}: run scripts/i386-root")
endif()

set(CMAKE_C_FLAGS_INIT "-m32")
set(CMAKE_CXX_FLAGS_INIT "-m32")
set(CMAKE_ASM_FLAGS_INIT "-m32")
# Every program finds the folder's libraries through its run path, and so do
# the libraries it loads (an old-style run path, which holds for the whole
# tree of dependencies), without an environment that would also reach the
# 64-bit programs the tests start, such as dbus-daemon.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-Wl,--disable-new-dtags -Wl,-rpath,${VT_I386_LIBDIR}")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-Wl,--disable-new-dtags -Wl,-rpath,${VT_I386_LIBDIR}")

set(ENV{PKG_CONFIG_LIBDIR} "${VT_I386_LIBDIR}/pkgconfig:${VT_I386_ROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${VT_I386_ROOT}")
set(GTest_DIR "${VT_I386_LIBDIR}/cmake/GTest" CACHE PATH "GoogleTest for i386")

# The machine has no loader cache for i386 gdk-pixbuf; the folder has one
# (tests/CMakeLists.txt hands it to the tests).
set(VT_TEST_ENVIRONMENT "GDK_PIXBUF_MODULE_FILE=${VT_I386_LIBDIR}/gdk-pixbuf-2.0/2.10.0/loaders.cache")
