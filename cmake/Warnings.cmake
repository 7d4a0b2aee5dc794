# Marks a target as our own code: warnings on, and errors where asked for.
function(netforge_own_code target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wshadow -Wconversion)
  if(NETFORGE_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
endfunction()
