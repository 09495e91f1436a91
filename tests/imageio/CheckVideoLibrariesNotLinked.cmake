# Fails when the shared library LIBRARY needs libavformat or libavcodec when it loads, or names one
# of their functions for the dynamic loader to bind: both are opened on the first video instead.
# Run by CTest: cmake -DLIBRARY=<libqor> -DREADELF=<readelf> -DNM=<nm> -P CheckVideoLibrariesNotLinked.cmake
if(NOT EXISTS "${LIBRARY}")
    message(FATAL_ERROR "no library at '${LIBRARY}': build the qor target first")
endif()
execute_process(COMMAND "${READELF}" --dynamic "${LIBRARY}"
                OUTPUT_VARIABLE dynamic RESULT_VARIABLE status)
if(NOT status EQUAL 0)
    message(FATAL_ERROR "${READELF} could not read ${LIBRARY}")
endif()
string(REGEX MATCHALL "NEEDED[^\n]*\\[lib(avformat|avcodec)[^\n]*" needed "${dynamic}")
if(needed)
    string(REPLACE ";" "\n" needed "${needed}")
    message(FATAL_ERROR "${LIBRARY} links the video libraries:\n${needed}")
endif()
execute_process(COMMAND "${NM}" --dynamic --undefined-only "${LIBRARY}"
                OUTPUT_VARIABLE undefined RESULT_VARIABLE status)
if(NOT status EQUAL 0)
    message(FATAL_ERROR "${NM} could not read ${LIBRARY}")
endif()
string(REGEX MATCHALL "[^\n]* (avformat_|avcodec_|av_read_frame|av_packet_)[^\n]*" bound
       "${undefined}")
if(bound)
    string(REPLACE ";" "\n" bound "${bound}")
    message(FATAL_ERROR "${LIBRARY} binds video functions when it loads:\n${bound}")
endif()
message(STATUS "${LIBRARY}: libavformat and libavcodec are not linked")
