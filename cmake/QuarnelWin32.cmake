# The Windows build (MinGW-w64, cmake/mingw-w64-x86_64.cmake): what differs
# from the Linux one before the folders are read.
#
# - Every program and DLL lands in the build folder itself, so that a test
#   program finds libquarnel.dll and the resource modules beside it, as an
#   application finds them in its own folder.
# - GoogleTest is built from the sources Debian's libgtest-dev installs
#   (/usr/src/googletest), since no Windows build of it is packaged.
# - Resource scripts go through the toolchain's resource compiler.
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR})
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR})
enable_language(RC)

if(QUARNEL_BUILD_TESTS)
  find_package(GTest QUIET)
  if(NOT GTest_FOUND)
    set(QUARNEL_GTEST_SOURCE /usr/src/googletest/googletest CACHE PATH
      "GoogleTest sources for the Windows build")
    if(NOT EXISTS ${QUARNEL_GTEST_SOURCE}/CMakeLists.txt)
      message(FATAL_ERROR "GoogleTest sources not found in ${QUARNEL_GTEST_SOURCE} (libgtest-dev)")
    endif()
    set(gtest_force_shared_crt ON CACHE BOOL "" FORCE)
    set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
    add_subdirectory(${QUARNEL_GTEST_SOURCE} ${PROJECT_BINARY_DIR}/googletest EXCLUDE_FROM_ALL SYSTEM)
    if(NOT TARGET GTest::gtest)
      add_library(GTest::gtest ALIAS gtest)
      add_library(GTest::gtest_main ALIAS gtest_main)
    endif()
    set(GTest_FOUND TRUE)
  endif()
endif()

# The crash report opens files and lists threads through ntdll's own calls.
string(APPEND CMAKE_CXX_STANDARD_LIBRARIES " -lntdll")
# Network connections are the WNet calls of mpr.
string(APPEND CMAKE_CXX_STANDARD_LIBRARIES " -lmpr")
