# Fails when a source includes a header of a folder its own folder may not use.
#
#   cmake -DSOURCE_DIR=<repository> -P scripts/check_includes.cmake
#
# The folders build on each other in one direction only:
#   host <- mail <- flow <- diagnosis, output <- module,   host <- capture
# Every `#include "folder/..."` line of a source in one of these folders is
# compared with the folders that folder may use; each wrong-way include is
# reported with its file, line and text.

set(allowed_host host)
set(allowed_mail host mail)
set(allowed_flow host mail flow)
set(allowed_diagnosis host mail flow diagnosis)
set(allowed_output host mail flow output)
set(allowed_module host mail flow diagnosis output module)
set(allowed_capture host capture)

set(folders host mail flow diagnosis output module capture)
set(failures 0)
foreach(folder ${folders})
  file(GLOB sources ${SOURCE_DIR}/${folder}/*.h ${SOURCE_DIR}/${folder}/*.cpp)
  foreach(source ${sources})
    file(RELATIVE_PATH relative ${SOURCE_DIR} ${source})
    file(STRINGS ${source} lines REGEX "^[ \t]*#[ \t]*include[ \t]*\"[^\"/]+/")
    foreach(line ${lines})
      string(REGEX REPLACE "^[ \t]*#[ \t]*include[ \t]*\"([^\"]+)\".*$" "\\1" header "${line}")
      string(REGEX REPLACE "/.*$" "" used "${header}")
      list(FIND folders ${used} known)
      if(known EQUAL -1)
        continue()
      endif()
      list(FIND allowed_${folder} ${used} permitted)
      if(permitted EQUAL -1)
        string(REPLACE ";" "/ " usable "${allowed_${folder}}/")
        message("${relative}: includes \"${header}\", but ${folder}/ may only use ${usable}")
        math(EXPR failures "${failures} + 1")
      endif()
    endforeach()
  endforeach()
endforeach()

if(failures GREATER 0)
  message(FATAL_ERROR "${failures} include(s) against the order of the folders")
endif()
