# cmake -DFROM=SOURCE -DTO=COPY -DTEXT=TEXT -DBY=TEXT -P Mutant.cmake
#
# Copies a source with one place of it changed, to see whether a test finds that.
file(READ "${FROM}" source)
string(REPLACE "${TEXT}" "${BY}" mutant "${source}")
if(mutant STREQUAL source)
  message(FATAL_ERROR
    "${FROM} does not have '${TEXT}' any more, which tests/torture/CMakeLists.txt breaks on purpose")
endif()
file(WRITE "${TO}" "${mutant}")
