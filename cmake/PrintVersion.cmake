# Prints the project's one version number, from the project() call of the top-level
# CMakeLists.txt, for the scripts that need it before anything is configured:
#   cmake -P cmake/PrintVersion.cmake
file(READ ${CMAKE_CURRENT_LIST_DIR}/../CMakeLists.txt DRX_TOP_LEVEL)
if(NOT DRX_TOP_LEVEL MATCHES "project\\(drx_FileSystem VERSION ([0-9]+\\.[0-9]+\\.[0-9]+)")
  message(FATAL_ERROR "no version in the project() call of CMakeLists.txt")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} -E echo ${CMAKE_MATCH_1})
