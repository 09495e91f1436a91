# Fails when the shared library LIBRARY needs one of FFmpeg's libraries when it loads, or names one
# of their functions for the dynamic loader to bind: they are opened on first use instead.
# Run by CTest:
#   cmake -DLIBRARY=<libqor> -DREADELF=<readelf> -DNM=<nm> -P CheckFfmpegNotLinked.cmake
include(${CMAKE_CURRENT_LIST_DIR}/../support/FailOnLines.cmake)
fail_on_lines("${LIBRARY}" "${READELF}" "NEEDED[^\n]*\\[lib(av[a-z]+|swscale)\\."
              "links FFmpeg's libraries" --dynamic)
fail_on_lines("${LIBRARY}" "${NM}" " (av_|avformat_|avcodec_|sws_)"
              "binds FFmpeg's functions when it loads" --dynamic --undefined-only)
message(STATUS "${LIBRARY}: FFmpeg is not linked")
