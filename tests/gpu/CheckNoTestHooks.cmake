# Fails when the shared library LIBRARY defines a symbol of the test hooks (qor::gpu::testing).
# Run by CTest: cmake -DLIBRARY=<libqor> -DNM=<nm> -P CheckNoTestHooks.cmake
if(NOT EXISTS "${LIBRARY}")
    message(FATAL_ERROR "no library at '${LIBRARY}': build the qor target first")
endif()
execute_process(COMMAND "${NM}" --demangle --defined-only "${LIBRARY}"
                OUTPUT_VARIABLE symbols RESULT_VARIABLE status)
if(NOT status EQUAL 0)
    message(FATAL_ERROR "${NM} could not read ${LIBRARY}")
endif()
string(REGEX MATCHALL "[^\n]*qor::gpu::testing::[^\n]*" hooks "${symbols}")
if(hooks)
    string(REPLACE ";" "\n" hooks "${hooks}")
    message(FATAL_ERROR "${LIBRARY} carries test hooks:\n${hooks}")
endif()
message(STATUS "${LIBRARY}: no test hooks")
