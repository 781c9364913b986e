# Cross-builds for the Kora board's processor with Debian's compiler (g++-powerpc-linux-gnu). Code for
# the e300c3 also runs on the 750 of the emulated board; both are of the 603 family.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR ppc)
set(CMAKE_CXX_COMPILER powerpc-linux-gnu-g++)
set(CMAKE_CXX_FLAGS_INIT -mcpu=e300c3)
set(CMAKE_C_COMPILER powerpc-linux-gnu-gcc) # for those who bring a project of their own, like GoogleTest
set(CMAKE_C_FLAGS_INIT -mcpu=e300c3)

# Programs are the host's; packages, libraries and headers never.
set(CMAKE_FIND_ROOT_PATH /usr/powerpc-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
