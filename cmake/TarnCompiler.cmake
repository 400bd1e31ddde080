# Warnings, sanitizers and the compiler cache, for every target of the project.

find_program(TARN_CCACHE ccache)
if(TARN_CCACHE)
  set(CMAKE_CXX_COMPILER_LAUNCHER ${TARN_CCACHE})
endif()

add_compile_options(-Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor
  -Woverloaded-virtual -Wconversion -Wsign-conversion -Wnull-dereference)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  # GCC 12 reports these in its own standard library when it inlines under optimisation.
  add_compile_options(-Wno-null-dereference -Wno-restrict)
endif()
# Nobody replaces this project's functions by preloading others of the same name, so calls within a
# library need not go through its jump table and may be inlined.
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  add_compile_options(-fno-semantic-interposition)
endif()
add_link_options(-Wl,-Bsymbolic-functions)

if(TARN_WERROR)
  add_compile_options(-Werror)
endif()

if(TARN_SANITIZE)
  add_compile_options(-fsanitize=${TARN_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${TARN_SANITIZE})
endif()
if(TARN_FUZZ)
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()
if(TARN_COVERAGE)
  add_compile_options(--coverage -fprofile-update=atomic)
  add_link_options(--coverage)
endif()
