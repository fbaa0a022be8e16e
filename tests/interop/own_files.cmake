# Writes every row's file with PROGRAM, reads them back, changes the chunk
# file and the profile and reopens them, all with PROGRAM.
# EMULATOR runs a Windows program under Wine ('|' between its words).
string(REPLACE "|" ";" emulator "${EMULATOR}")
file(REMOVE_RECURSE ${FOLDER})
file(MAKE_DIRECTORY ${FOLDER})
foreach(mode write check change reopen)
  execute_process(COMMAND ${emulator} ${PROGRAM} ${mode} ${FOLDER} RESULT_VARIABLE rc)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "quarnel_interop ${mode} failed")
  endif()
endforeach()
