# palinode_python_tests(LABEL file... [TIMEOUT seconds] [NEEDS namespaces|root])
# Registers each test method of the unittest files as a test of its own, so that they run in
# parallel and are counted one by one. They find the built programs in $PALINODE_BIN, their version
# in $PALINODE_VERSION, the Debian package in the folder $PALINODE_PACKAGES, and the Python package
# tests/support on their path. A test that skips itself is shown as skipped. The files are read
# again whenever they change. NEEDS and the lists tests/needs-machine*.txt are what palinode_unit_test
# has them for. What may take longest begins first, so that no long test is the last one alone.
function(palinode_python_tests label)
  cmake_parse_arguments(ARG "" "TIMEOUT;NEEDS" "" ${ARGN})
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 60)
  endif()
  set(labels ${label})
  if(ARG_NEEDS)
    list(APPEND labels needs-${ARG_NEEDS})
  endif()
  foreach(file IN LISTS ARG_UNPARSED_ARGUMENTS)
    set(path ${CMAKE_CURRENT_SOURCE_DIR}/${file})
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${path})
    get_filename_component(module ${file} NAME_WE)
    file(STRINGS ${path} lines REGEX "^class [A-Za-z0-9_]+|^    def test_[a-z0-9_]+")
    set(class "")
    foreach(line IN LISTS lines)
      if(line MATCHES "^class ([A-Za-z0-9_]+)")
        set(class ${CMAKE_MATCH_1})
      elseif(line MATCHES "def (test_[A-Za-z0-9_]+)")
        set(name ${label}.${module}.${class}.${CMAKE_MATCH_1})
        set(needs ${labels})
        if(name IN_LIST PALINODE_NEED_MACHINE)
          list(APPEND needs needs-machine)
        endif()
        add_test(NAME ${name}
                 COMMAND python3 -B -m unittest ${module}.${class}.${CMAKE_MATCH_1}
                 WORKING_DIRECTORY ${CMAKE_CURRENT_SOURCE_DIR})
        set_tests_properties(${name} PROPERTIES
          LABELS "${needs}"
          SKIP_REGULAR_EXPRESSION "\nOK \\(skipped="
          TIMEOUT ${ARG_TIMEOUT} COST ${ARG_TIMEOUT}
          ENVIRONMENT "PYTHONPATH=${CMAKE_SOURCE_DIR}/tests;PALINODE_BIN=${PALINODE_RUN_DIR};PALINODE_PACKAGES=${CMAKE_SOURCE_DIR}/build-package/package;PALINODE_VERSION=${PROJECT_VERSION}")
      endif()
    endforeach()
  endforeach()
endfunction()
