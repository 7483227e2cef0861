# What Debian's cross toolchains share; included by the file of each
# architecture after it sets LEITCH_TRIPLET, LEITCH_PROCESSOR and LEITCH_QEMU_NAME.
#
# Libraries of the target architecture come from Debian's multiarch packages
# (/usr/lib/<triplet>); architecture-independent headers, such as Boost's,
# from /usr/include, which the cross compiler searches after its own. Test
# programs run under qemu-user with the cross toolchain's C and C++ runtimes
# (/usr/<triplet>), so no binfmt registration is needed.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR ${LEITCH_PROCESSOR})
set(CMAKE_LIBRARY_ARCHITECTURE ${LEITCH_TRIPLET})

set(CMAKE_C_COMPILER ${LEITCH_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${LEITCH_TRIPLET}-g++)

find_program(LEITCH_QEMU ${LEITCH_QEMU_NAME} REQUIRED)
set(CMAKE_CROSSCOMPILING_EMULATOR ${LEITCH_QEMU} -L /usr/${LEITCH_TRIPLET})
