# Language level, warnings and sanitizers for every target of the project.
set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_C_STANDARD 99)
set(CMAKE_C_EXTENSIONS ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_C_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

add_compile_options(-Wall -Wextra -Werror)
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  add_compile_options($<$<COMPILE_LANGUAGE:CXX>:-Wthread-safety>)
endif()

if(ORB_SANITIZE)
  add_compile_options(-fsanitize=${ORB_SANITIZE} -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${ORB_SANITIZE})
  if(ORB_SANITIZE MATCHES "undefined")
    add_compile_options(-fno-sanitize-recover=all)
    # A regression over equal times divides by zero in float on purpose; its
    # infinity or NaN is the documented result.
    add_compile_options(-fno-sanitize=float-divide-by-zero)
  endif()
endif()

if(ORB_BUILD_FUZZERS)
  # What the fuzzer watches; its own main comes with the targets of fuzz/.
  add_compile_options(-fsanitize=fuzzer-no-link)
  add_link_options(-fsanitize=fuzzer-no-link)
endif()
