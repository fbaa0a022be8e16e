# Resource modules and host resources, built from resource scripts by qnrc.
#
#   quarnel_resource_module(NAME SCRIPT script.qrc [DEPENDS file...]
#                           [SOURCES file.cpp...] [OUTPUT_DIRECTORY dir]
#                           [NO_SYMBOL_MAP])
#       builds the resource module libNAME.so: a shared object that carries
#       the script's resources and the code of SOURCES (often none). DEPENDS
#       names the files the script reads (data file, icon, bitmap), so that a
#       change rebuilds it. The plain container is written beside it as
#       NAME.qnrb.
#
#       The module also carries its symbol map (resource 256, id 1: the names
#       of its functions, by which the crash report names stack frames and
#       without which DLLoadLib logs that the module "was built without
#       assert symbols"). It is built after linking: the module is linked
#       once as libNAME_unmapped.so, qnrc reads that file's symbol table, and
#       the module is linked again with the map in its container; the
#       container lies behind the code, so the code does not move, and
#       "qnrc --check-symbols" fails the build if it did. NO_SYMBOL_MAP
#       leaves the map out.
#
#   quarnel_host_resources(TARGET SCRIPT script.qrc [DEPENDS file...])
#       gives the executable TARGET the script's resources as the host
#       executable's own (exported from the executable, where the resource
#       manager looks for them).
#
# On Windows both are real Win32 resources: qnrc writes a resource script
# (NAME.rc) that the toolchain's resource compiler builds into the DLL
# NAME.dll (NAME_unmapped.dll for the first link), or into the executable.
# The symbol map is read from the DLL's own symbol table; the resources lie
# behind the code there too.

# Runs qnrc on the script: the plain container PREFIX.qnrb and the source
# that carries the resources (C++ on Linux, a resource script on Windows).

function(_quarnel_compile_resources prefix script depends out_source out_blob)
  # An optional sixth argument names a linked module whose symbol map the
  # container gets.
  set(map_module "")
  if(ARGC GREATER 5)
    set(map_module "${ARGV5}")
  endif()
  get_filename_component(abs_script ${script} ABSOLUTE)
  if(WIN32)
    set(source ${CMAKE_CURRENT_BINARY_DIR}/${prefix}.rc)
    set(flag -r)
  else()
    set(source ${CMAKE_CURRENT_BINARY_DIR}/${prefix}_resources.cpp)
    set(flag -c)
  endif()
  set(blob ${CMAKE_CURRENT_BINARY_DIR}/${prefix}.qnrb)
  set(abs_depends "")
  foreach(dep IN LISTS depends)
    get_filename_component(abs_dep ${dep} ABSOLUTE)
    list(APPEND abs_depends ${abs_dep})
  endforeach()
  set(map_args "")
  if(map_module)
    set(map_args --symbols-from $<TARGET_FILE:${map_module}>)
    list(APPEND abs_depends ${map_module})
  endif()
  add_custom_command(OUTPUT ${source} ${blob}
    COMMAND qnrc ${abs_script} -o ${blob} ${flag} ${source} ${map_args}
    DEPENDS qnrc ${abs_script} ${abs_depends}
    COMMENT "Compiling resources ${script}"
    VERBATIM)
  set(${out_source} ${source} PARENT_SCOPE)
  set(${out_blob} ${blob} PARENT_SCOPE)
endfunction()

function(quarnel_resource_module name)
  cmake_parse_arguments(QR "NO_SYMBOL_MAP" "SCRIPT;OUTPUT_DIRECTORY" "DEPENDS;SOURCES" ${ARGN})
  if(NOT QR_SCRIPT)
    message(FATAL_ERROR "quarnel_resource_module(${name}): SCRIPT is required")
  endif()
  set(code "")
  if(QR_SOURCES)
    add_library(${name}_code OBJECT ${QR_SOURCES})
    set(code $<TARGET_OBJECTS:${name}_code>)
  endif()
  if(WIN32)  # NAME.dll; a DLL without code of its own gets the start-up code
    set(prefix "")
    if(NOT QR_SOURCES)
      set(code ${PROJECT_SOURCE_DIR}/cmake/resource_module.cpp)
    endif()
  else()
    set(prefix "lib")
  endif()
  if(QR_NO_SYMBOL_MAP)
    _quarnel_compile_resources(${name} ${QR_SCRIPT} "${QR_DEPENDS}" source blob)
  else()
    _quarnel_compile_resources(${name}_unmapped ${QR_SCRIPT} "${QR_DEPENDS}" source0 blob0)
    add_library(${name}_unmapped MODULE ${source0} ${code})
    set_target_properties(${name}_unmapped PROPERTIES PREFIX "${prefix}")
    _quarnel_compile_resources(${name} ${QR_SCRIPT} "${QR_DEPENDS}" source blob ${name}_unmapped)
  endif()
  add_library(${name} MODULE ${source} ${code})
  set_target_properties(${name} PROPERTIES PREFIX "${prefix}" QUARNEL_RESOURCE_BLOB ${blob})
  if(NOT QR_NO_SYMBOL_MAP)
    add_custom_command(TARGET ${name} POST_BUILD
      COMMAND qnrc --check-symbols $<TARGET_FILE:${name}>
      VERBATIM)
  endif()
  if(QR_OUTPUT_DIRECTORY)
    set_target_properties(${name} PROPERTIES LIBRARY_OUTPUT_DIRECTORY ${QR_OUTPUT_DIRECTORY})
  endif()
endfunction()

function(quarnel_host_resources target)
  cmake_parse_arguments(QR "" "SCRIPT" "DEPENDS" ${ARGN})
  if(NOT QR_SCRIPT)
    message(FATAL_ERROR "quarnel_host_resources(${target}): SCRIPT is required")
  endif()
  _quarnel_compile_resources(${target}_host ${QR_SCRIPT} "${QR_DEPENDS}" source blob)
  if(WIN32)
    # The script is made here; the executable may be declared elsewhere.
    add_custom_target(${target}_host_rc DEPENDS ${source})
    set_source_files_properties(${source} TARGET_DIRECTORY ${target} PROPERTIES GENERATED TRUE)
    target_sources(${target} PRIVATE ${source})
    add_dependencies(${target} ${target}_host_rc)
    return()
  endif()
  add_library(${target}_host_resources OBJECT ${source})
  target_link_libraries(${target} PRIVATE ${target}_host_resources)
  target_link_options(${target} PRIVATE "LINKER:--export-dynamic-symbol=quarnel_resources")
endfunction()
