# Resource modules and host resources, built from resource scripts by qnrc.
#
#   quarnel_resource_module(NAME SCRIPT script.qrc [DEPENDS file...]
#                           [OUTPUT_DIRECTORY dir])
#       builds the resource module libNAME.so: a shared object that carries
#       the script's resources and no code. DEPENDS names the files the script
#       reads (data file, icon, bitmap), so that a change rebuilds it. The
#       plain container is written beside it as NAME.qnrb.
#
#   quarnel_host_resources(TARGET SCRIPT script.qrc [DEPENDS file...])
#       gives the executable TARGET the script's resources as the host
#       executable's own (exported from the executable, where the resource
#       manager looks for them).
#
# On Windows both are real Win32 resources: qnrc writes a resource script
# (NAME.rc) that the toolchain's resource compiler builds into the DLL
# NAME.dll, or into the executable.

# Runs qnrc on the script: the plain container PREFIX.qnrb and the source
# that carries the resources (C++ on Linux, a resource script on Windows).
function(_quarnel_compile_resources prefix script depends out_source out_blob)
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
  add_custom_command(OUTPUT ${source} ${blob}
    COMMAND qnrc ${abs_script} -o ${blob} ${flag} ${source}
    DEPENDS qnrc ${abs_script} ${abs_depends}
    COMMENT "Compiling resources ${script}"
    VERBATIM)
  set(${out_source} ${source} PARENT_SCOPE)
  set(${out_blob} ${blob} PARENT_SCOPE)
endfunction()

function(quarnel_resource_module name)
  cmake_parse_arguments(QR "" "SCRIPT;OUTPUT_DIRECTORY" "DEPENDS" ${ARGN})
  if(NOT QR_SCRIPT)
    message(FATAL_ERROR "quarnel_resource_module(${name}): SCRIPT is required")
  endif()
  _quarnel_compile_resources(${name} ${QR_SCRIPT} "${QR_DEPENDS}" source blob)
  if(WIN32)  # NAME.dll, its resources real Win32 ones
    add_library(${name} MODULE ${source} ${PROJECT_SOURCE_DIR}/cmake/resource_module.cpp)
    set_target_properties(${name} PROPERTIES PREFIX "" QUARNEL_RESOURCE_BLOB ${blob})
  else()
    add_library(${name} MODULE ${source})
    set_target_properties(${name} PROPERTIES PREFIX "lib" QUARNEL_RESOURCE_BLOB ${blob})
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
