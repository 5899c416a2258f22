# What tells one build from another: branch, commit and time. They reach one source only, so that
# a new commit recompiles one file. A tree without git is "unknown".
function(orbel_git result)
    execute_process(COMMAND git ${ARGN}
        WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
        OUTPUT_VARIABLE output OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET RESULT_VARIABLE failed)
    if(failed OR output STREQUAL "")
        set(output unknown)
    endif()
    set(${result} ${output} PARENT_SCOPE)
endfunction()

orbel_git(branch rev-parse --abbrev-ref HEAD)
orbel_git(commit rev-parse --short=8 HEAD)
# The commit that last touched the public headers, with its date.
orbel_git(headerCommit log -1 --abbrev=7 --format=%h\(%cs\) -- include)
string(TIMESTAMP buildTime "%Y-%m-%d %H:%M:%S" UTC)

set_source_files_properties(${PROJECT_SOURCE_DIR}/frame/BuildIdentity.cpp PROPERTIES
    COMPILE_DEFINITIONS
    "ORBEL_BUILD_TIME=\"${buildTime}\";ORBEL_BUILD_BRANCH=\"${branch}\";ORBEL_BUILD_COMMIT=\"${commit}\";ORBEL_HEADER_COMMIT=\"${headerCommit}\"")
