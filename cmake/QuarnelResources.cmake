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

function(_quarnel_compile_resources prefix script depends out_cpp out_blob)
  # An optional sixth argument names a linked module whose symbol map the
  # container gets.
  set(map_module "")
  if(ARGC GREATER 5)
    set(map_module "${ARGV5}")
  endif()
  get_filename_component(abs_script ${script} ABSOLUTE)
  set(cpp ${CMAKE_CURRENT_BINARY_DIR}/${prefix}_resources.cpp)
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
  add_custom_command(OUTPUT ${cpp} ${blob}
    COMMAND qnrc ${abs_script} -o ${blob} -c ${cpp} ${map_args}
    DEPENDS qnrc ${abs_script} ${abs_depends}
    COMMENT "Compiling resources ${script}"
    VERBATIM)
  set(${out_cpp} ${cpp} PARENT_SCOPE)
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
  if(QR_NO_SYMBOL_MAP)
    _quarnel_compile_resources(${name} ${QR_SCRIPT} "${QR_DEPENDS}" cpp blob)
  else()
    _quarnel_compile_resources(${name}_unmapped ${QR_SCRIPT} "${QR_DEPENDS}" cpp0 blob0)
    add_library(${name}_unmapped MODULE ${cpp0} ${code})
    set_target_properties(${name}_unmapped PROPERTIES PREFIX "lib")
    _quarnel_compile_resources(${name} ${QR_SCRIPT} "${QR_DEPENDS}" cpp blob ${name}_unmapped)
  endif()
  add_library(${name} MODULE ${cpp} ${code})
  set_target_properties(${name} PROPERTIES PREFIX "lib" QUARNEL_RESOURCE_BLOB ${blob})
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
  _quarnel_compile_resources(${target}_host ${QR_SCRIPT} "${QR_DEPENDS}" cpp blob)
  add_library(${target}_host_resources OBJECT ${cpp})
  target_link_libraries(${target} PRIVATE ${target}_host_resources)
  target_link_options(${target} PRIVATE "LINKER:--export-dynamic-symbol=quarnel_resources")
endfunction()
