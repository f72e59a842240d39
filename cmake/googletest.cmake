# GTest::gtest_main, compiled as part of this build: what a package manager has compiled is for the
# machine's own processor, C++ library and compiler flags, and the agent may be built for others.
if(APPLE)
  set(GOOGLETEST_SOURCES ${PROJECT_SOURCE_DIR}/build/googletest CACHE PATH "./test gets it here")
else()
  set(GOOGLETEST_SOURCES /usr/src/googletest CACHE PATH "As in Debian's package googletest")
endif()
set(googletest ${GOOGLETEST_SOURCES}/googletest)
if(NOT EXISTS ${googletest}/src/gtest-all.cc)
  message(FATAL_ERROR "  The tests need GoogleTest's sources, and GOOGLETEST_SOURCES has none: "
    "${GOOGLETEST_SOURCES}")
endif()

add_library(gtest_main STATIC ${googletest}/src/gtest-all.cc ${googletest}/src/gtest_main.cc)
add_library(GTest::gtest_main ALIAS gtest_main)
target_include_directories(gtest_main PRIVATE ${googletest})
target_include_directories(gtest_main SYSTEM PUBLIC ${googletest}/include)
# These and the tests' own files take the longest to compile, and need no speed.
target_compile_options(gtest_main PUBLIC -O0 -U_FORTIFY_SOURCE)
target_link_libraries(gtest_main PUBLIC Threads::Threads)
