# Marks a target as our own code: warnings on, and errors where asked for.
function(netforge_own_code target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wshadow -Wconversion)
  # GCC 12 warns of an overlap in std::string's own operator+ that can't happen (its bug 105329).
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
    target_compile_options(${target} PRIVATE -Wno-restrict)
  endif()
  if(NETFORGE_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
endfunction()
