# Strict warnings for the project's own targets (dependency headers are system headers).
#
# Beyond -Wall -Wextra: -Wshadow (a local or parameter that hides another name, the source of
# quiet mix-ups in long functions), -Wnon-virtual-dtor (a class with virtual functions that
# could be deleted through its base without its destructor running) and -Wold-style-cast (C
# casts, which say nothing of what they convert and turn into reinterpret_cast silently).
option(ZONARIS_WERROR "Treat the project's warnings as errors" ON)

set(ZONARIS_WARNING_FLAGS -Wall -Wextra -Wshadow -Wnon-virtual-dtor -Wold-style-cast)

function(zonaris_warnings target)
  target_compile_options(${target} PRIVATE ${ZONARIS_WARNING_FLAGS})
  if(ZONARIS_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
endfunction()
