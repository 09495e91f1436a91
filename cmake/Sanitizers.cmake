# QOR_SANITIZE=address,undefined or thread applies to every target of the build.
if(QOR_SANITIZE)
    set(_san_flags -fsanitize=${QOR_SANITIZE} -fno-omit-frame-pointer -g)
    if(QOR_SANITIZE MATCHES "undefined")
        # g++ leaves float-to-integer casts out of "undefined"; a NaN or an out-of-range sample
        # cast to an integer is undefined all the same.
        list(APPEND _san_flags -fsanitize=float-cast-overflow
             -fno-sanitize-recover=undefined,float-cast-overflow)
    endif()
    add_compile_options(${_san_flags})
    add_link_options(-fsanitize=${QOR_SANITIZE})
    add_compile_definitions(QOR_SANITIZED=1)
endif()
