# tw_add_fuzz_target(<name> SOURCES <files> LIBS <libs>)
# Builds fuzz_<name> from sources that define LLVMFuzzerTestOneInput; its seed
# corpus is tests/fuzz/corpus/<name>/. In the normal build a small replay
# driver runs the target over that corpus as the CTest test fuzz_<name>; with
# TW_FUZZ=ON (clang, see scripts/fuzz) libFuzzer's own driver links in and the
# target explores for as long as it is run. Callable from any tests folder.
option(TW_FUZZ "Link the fuzz targets with libFuzzer (clang only)" OFF)
set(TW_FUZZ_DIR ${CMAKE_CURRENT_LIST_DIR})

function(tw_add_fuzz_target name)
    cmake_parse_arguments(ARG "" "" "SOURCES;LIBS" ${ARGN})
    foreach(lib ${ARG_LIBS})
        if(NOT TARGET ${lib})
            return() # its subsystem is not part of this build
        endif()
    endforeach()
    set(corpus ${TW_FUZZ_DIR}/corpus/${name})
    if(TW_FUZZ)
        add_executable(fuzz_${name} ${ARG_SOURCES})
        target_link_options(fuzz_${name} PRIVATE -fsanitize=fuzzer)
    else()
        add_executable(fuzz_${name} ${ARG_SOURCES} ${TW_FUZZ_DIR}/replay_main.cpp)
        add_test(NAME fuzz_${name} COMMAND fuzz_${name} ${corpus})
        set_tests_properties(fuzz_${name} PROPERTIES TIMEOUT 120 ENVIRONMENT
            "QT_QPA_PLATFORM=offscreen;XDG_CONFIG_HOME=${CMAKE_CURRENT_BINARY_DIR}/settings-fuzz_${name}")
    endif()
    target_include_directories(fuzz_${name} PRIVATE ${TW_FUZZ_DIR})
    target_link_libraries(fuzz_${name} PRIVATE ${ARG_LIBS})
    set_property(GLOBAL APPEND PROPERTY TW_FUZZ_TARGETS "${name}=${corpus}")
endfunction()

# scripts/fuzz finds the targets and their seed corpora in this list, written
# once every folder has registered its targets.
function(tw_write_fuzz_targets)
    get_property(targets GLOBAL PROPERTY TW_FUZZ_TARGETS)
    list(JOIN targets "\n" targets)
    file(WRITE ${PROJECT_BINARY_DIR}/fuzz_targets.txt "${targets}\n")
endfunction()
cmake_language(DEFER DIRECTORY ${PROJECT_SOURCE_DIR} CALL tw_write_fuzz_targets)
