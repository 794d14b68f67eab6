# The warnings that every target of ours is built with.
add_library(kel-warnings INTERFACE)
target_compile_options(kel-warnings INTERFACE -Wall -Wextra -Wshadow -Wnon-virtual-dtor -Wold-style-cast)
if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    # The lock annotations are checked by this compiler alone; a broken one is never acceptable.
    target_compile_options(kel-warnings INTERFACE -Wthread-safety -Werror=thread-safety)
endif()
if(KEL_WERROR)
    target_compile_options(kel-warnings INTERFACE -Werror)
endif()
