# qor_add_library(name DIRS dir... DEPS target... [TEST_HOOKS])
#   One static library per layer. Sources are every .cpp below the listed folders, so adding a file
#   needs no edit here; the dependency list stays explicit and reads like the architecture.
#   TEST_HOOKS: the layer has test hooks, code under #ifdef QOR_TESTING. The library itself, which
#   goes into the shipped libqor, is never built with them. When tests are built, the sources that
#   mention QOR_TESTING (found when CMake configures: a file that starts to mention it needs a new
#   configure) are compiled a second time with it into <name>_testing, which shares every other
#   object with <name>; the layer's test executable links <name>_testing instead of <name>.
# qor_add_test(name DIRS dir... DEPS target... LABELS label...)
#   One GoogleTest executable per layer, registered with CTest.

function(qor_apply_flags target)
    qor_set_warnings(${target})
endfunction()

function(qor_add_library name)
    cmake_parse_arguments(ARG "TEST_HOOKS" "" "DIRS;DEPS" ${ARGN})
    set(sources)
    foreach(dir IN LISTS ARG_DIRS)
        file(GLOB_RECURSE found CONFIGURE_DEPENDS
             ${CMAKE_CURRENT_SOURCE_DIR}/${dir}/*.cpp ${CMAKE_CURRENT_SOURCE_DIR}/${dir}/*.h)
        list(APPEND sources ${found})
    endforeach()
    if(NOT ARG_TEST_HOOKS OR NOT QOR_BUILD_TESTS)
        add_library(${name} STATIC ${sources})
        target_include_directories(${name} PUBLIC $<BUILD_INTERFACE:${CMAKE_SOURCE_DIR}/src>)
        target_link_libraries(${name} PUBLIC ${ARG_DEPS})
        qor_apply_flags(${name})
        return()
    endif()

    set(hooked)
    foreach(source IN LISTS sources)
        if(source MATCHES "\\.cpp$")
            file(STRINGS ${source} mentions REGEX "QOR_TESTING" LIMIT_COUNT 1)
            if(mentions)
                list(APPEND hooked ${source})
            endif()
        endif()
    endforeach()
    set(shared ${sources})
    if(hooked)
        list(REMOVE_ITEM shared ${hooked})
    endif()
    add_library(${name}_shared_objects OBJECT ${shared})
    target_include_directories(${name}_shared_objects PUBLIC
                               $<BUILD_INTERFACE:${CMAKE_SOURCE_DIR}/src>)
    target_link_libraries(${name}_shared_objects PUBLIC ${ARG_DEPS})
    qor_apply_flags(${name}_shared_objects)
    foreach(variant IN ITEMS ${name} ${name}_testing)
        add_library(${variant} STATIC $<TARGET_OBJECTS:${name}_shared_objects> ${hooked})
        target_include_directories(${variant} PUBLIC $<BUILD_INTERFACE:${CMAKE_SOURCE_DIR}/src>)
        target_link_libraries(${variant} PUBLIC ${ARG_DEPS})
        qor_apply_flags(${variant})
    endforeach()
    target_compile_definitions(${name}_testing PRIVATE QOR_TESTING=1)
endfunction()

function(qor_add_test name)
    cmake_parse_arguments(ARG "" "" "DIRS;DEPS;LABELS" ${ARGN})
    set(sources)
    foreach(dir IN LISTS ARG_DIRS)
        file(GLOB_RECURSE found CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/${dir}/*.cpp)
        list(APPEND sources ${found})
    endforeach()
    # Every test executable shares one main (tests/support/TestMain.cpp): it fails a test during
    # which an assertion was logged that the test did not capture.
    add_executable(${name} ${sources} ${CMAKE_CURRENT_SOURCE_DIR}/support/TestMain.cpp)
    target_link_libraries(${name} PRIVATE ${ARG_DEPS} GTest::gmock GTest::gtest)
    target_compile_definitions(${name} PRIVATE QOR_TESTING=1)
    qor_apply_flags(${name})
    gtest_discover_tests(${name}
        PROPERTIES LABELS "${ARG_LABELS}"
        TEST_LIST ${name}_TESTS
        DISCOVERY_TIMEOUT 60)
    # Suites whose name ends in "Threads" also get the label "threads", which the tsan preset runs.
    # This runs in CTest after the discovered list has been included.
    set(label_script ${CMAKE_CURRENT_BINARY_DIR}/${name}_labels.cmake)
    file(WRITE ${label_script}
"foreach(t IN LISTS ${name}_TESTS)
    if(t MATCHES \"^[A-Za-z0-9_]*Threads[./]\")
        set_tests_properties(\"\${t}\" PROPERTIES LABELS \"${ARG_LABELS};threads\")
    endif()
endforeach()
")
    set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES ${label_script})
    set_property(GLOBAL APPEND PROPERTY QOR_TEST_TARGETS ${name})
endfunction()
