# The library ugw_build_info: build_date and build_git_sha (UGW.cpp prints them in its banner).
#
# The revision is taken from git, or, in an archive made by git, from cmake/revision.txt; "unknown" where neither
# tells. It is looked up at every build, its file is only rewritten when it differs. The date follows
# SOURCE_DATE_EPOCH where that is set.
set(ugw_revision_file ${CMAKE_CURRENT_BINARY_DIR}/revision.txt)
set(ugw_build_info_cpp ${CMAKE_CURRENT_BINARY_DIR}/BuildInfo.cpp)
add_custom_target(ugw_revision
    COMMAND ${CMAKE_COMMAND} -DSRC=${CMAKE_CURRENT_SOURCE_DIR} -DOUT=${ugw_revision_file}
            -P ${CMAKE_CURRENT_LIST_DIR}/Revision.cmake
    BYPRODUCTS ${ugw_revision_file}
    COMMENT "" VERBATIM)
add_custom_command(OUTPUT ${ugw_build_info_cpp}
    COMMAND ${CMAKE_COMMAND} -DREVISION_FILE=${ugw_revision_file} -DOUT=${ugw_build_info_cpp}
            -P ${CMAKE_CURRENT_LIST_DIR}/WriteBuildInfo.cmake
    DEPENDS ugw_revision ${ugw_revision_file} ugw_core ${CMAKE_CURRENT_SOURCE_DIR}/UGW.cpp
    COMMENT "Writing build date and revision" VERBATIM)
add_library(ugw_build_info STATIC ${ugw_build_info_cpp})
