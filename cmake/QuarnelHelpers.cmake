# Helpers that declare the library's pieces and their tests, one line a file.
#
#   quarnel_sources(a.cpp b.cpp)   adds sources of the current folder to the library
#   quarnel_test(name_test)        builds name_test.cpp into a test program and
#                                  registers its cases with CTest
#   quarnel_add_gtest(target)      registers a GoogleTest program with CTest:
#                                  case by case on Linux; as one test per
#                                  program on Windows, where every start of a
#                                  program is a start of Wine

set_property(GLOBAL PROPERTY QUARNEL_SOURCES "")
set_property(GLOBAL PROPERTY QUARNEL_TESTS "")

function(quarnel_sources)
  foreach(src IN LISTS ARGN)
    set_property(GLOBAL APPEND PROPERTY QUARNEL_SOURCES "${CMAKE_CURRENT_SOURCE_DIR}/${src}")
  endforeach()
endfunction()

function(quarnel_add_gtest target)
  if(WIN32)
    add_test(NAME ${target} COMMAND ${target})
  else()
    gtest_discover_tests(${target} DISCOVERY_TIMEOUT 60)
  endif()
endfunction()

function(quarnel_test name)
  if(NOT QUARNEL_BUILD_TESTS)
    return()
  endif()
  set_property(GLOBAL APPEND PROPERTY QUARNEL_TESTS "${CMAKE_CURRENT_SOURCE_DIR}/${name}.cpp")
endfunction()

# The objects are compiled once; the shared library exports only what
# QUARNEL_API marks (cmake/quarnel.map.in), while the tests link the same
# objects statically so that they can reach internal helpers and test seams.
function(quarnel_assemble_library)
  get_property(srcs GLOBAL PROPERTY QUARNEL_SOURCES)
  add_library(quarnel_objects OBJECT ${srcs})
  target_include_directories(quarnel_objects PUBLIC
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>)
  target_compile_definitions(quarnel_objects PRIVATE QUARNEL_BUILDING)
  target_link_libraries(quarnel_objects PUBLIC ${CMAKE_DL_LIBS})

  add_library(quarnel SHARED $<TARGET_OBJECTS:quarnel_objects>)
  add_library(quarnel::quarnel ALIAS quarnel)
  target_include_directories(quarnel PUBLIC
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
  target_link_libraries(quarnel PRIVATE ${CMAKE_DL_LIBS})
  # Before 1.0 each minor release may change the binary interface, so the
  # soname names major and minor (libquarnel.so.0.1); from 1.0 on, the major
  # alone. The version script versions every export and keeps the rest local.
  if(PROJECT_VERSION_MAJOR EQUAL 0)
    set(soversion ${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR})
  else()
    set(soversion ${PROJECT_VERSION_MAJOR})
  endif()
  set(map ${PROJECT_BINARY_DIR}/quarnel.map)
  configure_file(${PROJECT_SOURCE_DIR}/cmake/quarnel.map.in ${map} @ONLY)
  if(WIN32)
    # libquarnel.dll: the linker exports the library's global symbols, none
    # of the runtime libraries linked into it.
    target_link_options(quarnel PRIVATE
      -Wl,--exclude-libs=libgcc.a:libgcc_eh.a:libstdc++.a:libwinpthread.a:libmingwex.a)
    set_target_properties(quarnel PROPERTIES VERSION ${PROJECT_VERSION} EXPORT_NAME quarnel)
  else()
    target_link_options(quarnel PRIVATE -Wl,--version-script=${map})
    set_target_properties(quarnel PROPERTIES
      VERSION ${PROJECT_VERSION} SOVERSION ${soversion}
      EXPORT_NAME quarnel LINK_DEPENDS ${map})
  endif()
  target_compile_features(quarnel PUBLIC cxx_std_20)

  add_library(quarnel_static STATIC $<TARGET_OBJECTS:quarnel_objects>)
  target_include_directories(quarnel_static PUBLIC $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>)
  target_link_libraries(quarnel_static PUBLIC ${CMAKE_DL_LIBS})
endfunction()
