# One place for compiler warnings. -Werror only when QOR_WERROR is on (CI).
function(qor_set_warnings target)
    target_compile_options(${target} PRIVATE -Wall -Wextra -Wno-unused-parameter)
    if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
        target_compile_options(${target} PRIVATE -Wthread-safety)
    endif()
    if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
        # g++ 12 at -O3 reports -Wrestrict inside std::string's inlined copies (a known false
        # positive of that release) in code that only appends strings.
        target_compile_options(${target} PRIVATE -Wno-restrict)
    endif()
    if(QOR_WERROR)
        target_compile_options(${target} PRIVATE -Werror)
    endif()
endfunction()
