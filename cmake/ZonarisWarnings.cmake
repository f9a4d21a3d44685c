# Strict warnings for the project's own targets (dependency headers are system headers).
function(zonaris_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Werror)
endfunction()
