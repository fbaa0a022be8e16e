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

function(_quarnel_compile_resources prefix script depends out_cpp out_blob)
  get_filename_component(abs_script ${script} ABSOLUTE)
  set(cpp ${CMAKE_CURRENT_BINARY_DIR}/${prefix}_resources.cpp)
  set(blob ${CMAKE_CURRENT_BINARY_DIR}/${prefix}.qnrb)
  set(abs_depends "")
  foreach(dep IN LISTS depends)
    get_filename_component(abs_dep ${dep} ABSOLUTE)
    list(APPEND abs_depends ${abs_dep})
  endforeach()
  add_custom_command(OUTPUT ${cpp} ${blob}
    COMMAND qnrc ${abs_script} -o ${blob} -c ${cpp}
    DEPENDS qnrc ${abs_script} ${abs_depends}
    COMMENT "Compiling resources ${script}"
    VERBATIM)
  set(${out_cpp} ${cpp} PARENT_SCOPE)
  set(${out_blob} ${blob} PARENT_SCOPE)
endfunction()

function(_quarnel_compile_rc prefix script depends out_rc)
  get_filename_component(abs_script ${script} ABSOLUTE)
  set(rc ${CMAKE_CURRENT_BINARY_DIR}/${prefix}.rc)
  set(blob ${CMAKE_CURRENT_BINARY_DIR}/${prefix}.qnrb)
  set(abs_depends "")
  foreach(dep IN LISTS depends)
    get_filename_component(abs_dep ${dep} ABSOLUTE)
    list(APPEND abs_depends ${abs_dep})
  endforeach()
  add_custom_command(OUTPUT ${rc} ${blob}
    COMMAND qnrc ${abs_script} -o ${blob} -r ${rc}
    DEPENDS qnrc ${abs_script} ${abs_depends}
    COMMENT "Compiling resources ${script}"
    VERBATIM)
  set(${out_rc} ${rc} PARENT_SCOPE)
endfunction()

function(quarnel_resource_module name)
  cmake_parse_arguments(QR "" "SCRIPT;OUTPUT_DIRECTORY" "DEPENDS" ${ARGN})
  if(NOT QR_SCRIPT)
    message(FATAL_ERROR "quarnel_resource_module(${name}): SCRIPT is required")
  endif()
  if(WIN32)
    _quarnel_compile_rc(${name} ${QR_SCRIPT} "${QR_DEPENDS}" rc)
    add_library(${name} MODULE ${rc} ${PROJECT_SOURCE_DIR}/cmake/resource_module.cpp)
    set_target_properties(${name} PROPERTIES PREFIX "" QUARNEL_RESOURCE_BLOB
      ${CMAKE_CURRENT_BINARY_DIR}/${name}.qnrb)
    if(QR_OUTPUT_DIRECTORY)
      set_target_properties(${name} PROPERTIES LIBRARY_OUTPUT_DIRECTORY ${QR_OUTPUT_DIRECTORY})
    endif()
    return()
  endif()
  _quarnel_compile_resources(${name} ${QR_SCRIPT} "${QR_DEPENDS}" cpp blob)
  add_library(${name} MODULE ${cpp})
  set_target_properties(${name} PROPERTIES PREFIX "lib" QUARNEL_RESOURCE_BLOB ${blob})
  if(QR_OUTPUT_DIRECTORY)
    set_target_properties(${name} PROPERTIES LIBRARY_OUTPUT_DIRECTORY ${QR_OUTPUT_DIRECTORY})
  endif()
endfunction()

function(quarnel_host_resources target)
  cmake_parse_arguments(QR "" "SCRIPT" "DEPENDS" ${ARGN})
  if(NOT QR_SCRIPT)
    message(FATAL_ERROR "quarnel_host_resources(${target}): SCRIPT is required")
  endif()
  if(WIN32)
    _quarnel_compile_rc(${target}_host ${QR_SCRIPT} "${QR_DEPENDS}" rc)
    # The script is made here; the executable may be declared elsewhere.
    add_custom_target(${target}_host_rc DEPENDS ${rc})
    set_source_files_properties(${rc} TARGET_DIRECTORY ${target} PROPERTIES GENERATED TRUE)
    target_sources(${target} PRIVATE ${rc})
    add_dependencies(${target} ${target}_host_rc)
    return()
  endif()
  _quarnel_compile_resources(${target}_host ${QR_SCRIPT} "${QR_DEPENDS}" cpp blob)
  add_library(${target}_host_resources OBJECT ${cpp})
  target_link_libraries(${target} PRIVATE ${target}_host_resources)
  target_link_options(${target} PRIVATE "LINKER:--export-dynamic-symbol=quarnel_resources")
endfunction()
