# For the checks of built binaries that CTest runs in script mode (cmake -P).
#
# fail_on_lines(FILE TOOL PATTERN WHAT ARGS...)
#   Runs TOOL with ARGS on FILE and fails, naming FILE and WHAT, with the lines of its output that
#   match PATTERN. Fails as well when there is no FILE or TOOL cannot read it.
function(fail_on_lines file tool pattern what)
    if(NOT EXISTS "${file}")
        message(FATAL_ERROR "no file at '${file}': build it first")
    endif()
    execute_process(COMMAND "${tool}" ${ARGN} "${file}" OUTPUT_VARIABLE output
                    RESULT_VARIABLE status)
    if(NOT status EQUAL 0)
        message(FATAL_ERROR "${tool} could not read ${file}")
    endif()
    string(REGEX MATCHALL "[^\n]*${pattern}[^\n]*" lines "${output}")
    if(lines)
        string(REPLACE ";" "\n" lines "${lines}")
        message(FATAL_ERROR "${file} ${what}:\n${lines}")
    endif()
endfunction()
