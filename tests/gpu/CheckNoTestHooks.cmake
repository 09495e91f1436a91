# Fails when the shared library LIBRARY defines a symbol of the test hooks (qor::gpu::testing).
# Run by CTest: cmake -DLIBRARY=<libqor> -DNM=<nm> -P CheckNoTestHooks.cmake
include(${CMAKE_CURRENT_LIST_DIR}/../support/FailOnLines.cmake)
fail_on_lines("${LIBRARY}" "${NM}" "qor::gpu::testing::" "carries test hooks" --demangle
              --defined-only)
message(STATUS "${LIBRARY}: no test hooks")
