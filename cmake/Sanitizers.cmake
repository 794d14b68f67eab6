# KEL_SANITIZE applies to everything built here: half-sanitized programs report nonsense.
if(KEL_SANITIZE STREQUAL "address")
    add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
    add_link_options(-fsanitize=address,undefined)
elseif(KEL_SANITIZE STREQUAL "thread")
    add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
    add_link_options(-fsanitize=thread)
elseif(KEL_SANITIZE STREQUAL "fuzzer") # clang's, which has to see what the fuzzers' bytes reach
    add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
    add_link_options(-fsanitize=address,undefined)
elseif(KEL_SANITIZE)
    message(FATAL_ERROR "KEL_SANITIZE is '${KEL_SANITIZE}'; it may be address, thread, fuzzer or empty")
endif()
