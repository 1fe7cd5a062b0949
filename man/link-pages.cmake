# The link pages of the manual, made from man/names.txt.
#
# Included by man/CMakeLists.txt, this file only defines
# shm_man_read_names(). Run as a script it writes the link pages:
#
#   cmake -DNAMES=man/names.txt -DOUT=BUILD/man/man3 -P man/link-pages.cmake
#
# Every line "NAME PAGE" of names.txt becomes OUT/NAME.3 holding
# ".so manS/PAGE", S being PAGE's section. Link pages in OUT that names.txt no
# longer lists are removed, so that a name taken out of the list is really
# undocumented in the build tree (check-documented.sh then says so).

if(CMAKE_SCRIPT_MODE_FILE)
  cmake_minimum_required(VERSION 3.25)  # policies for the function below
endif()

# Reads names.txt into two parallel lists: the names and their pages. Stops
# the configuration (or the script) on a malformed line, a name listed twice,
# or one of dlopen, dlsym and dlclose, whose link pages would shadow the
# system's pages of the same names.
function(shm_man_read_names file names_var pages_var)
  file(STRINGS ${file} lines)
  set(names "")
  set(pages "")
  set(number 0)
  foreach(line IN LISTS lines)
    math(EXPR number "${number} + 1")
    if(line MATCHES "^[ \t]*(#.*)?$")
      continue()
    endif()
    if(NOT line MATCHES "^([A-Za-z_][A-Za-z0-9_]*)[ \t]+([A-Za-z0-9_.-]+\\.[1-9])[ \t]*$")
      message(FATAL_ERROR "${file}:${number}: expected \"NAME PAGE\" (PAGE like libshm_sdc.3): ${line}")
    endif()
    set(name ${CMAKE_MATCH_1})
    set(page ${CMAKE_MATCH_2})
    if(name MATCHES "^dl(open|sym|close)$")
      message(FATAL_ERROR "${file}:${number}: ${name} gets no link page: it would shadow the system's ${name}(3)")
    endif()
    if(name IN_LIST names)
      message(FATAL_ERROR "${file}:${number}: ${name} is listed twice")
    endif()
    list(APPEND names ${name})
    list(APPEND pages ${page})
  endforeach()
  set(${names_var} ${names} PARENT_SCOPE)
  set(${pages_var} ${pages} PARENT_SCOPE)
endfunction()

if(CMAKE_SCRIPT_MODE_FILE)
  if(NOT NAMES OR NOT OUT)
    message(FATAL_ERROR "usage: cmake -DNAMES=names.txt -DOUT=DIR -P link-pages.cmake")
  endif()
  shm_man_read_names(${NAMES} names pages)
  file(MAKE_DIRECTORY ${OUT})

  # Remove the link pages of names that are no longer listed. Pages made by
  # scdoc begin with a comment, never with ".so ".
  file(GLOB existing ${OUT}/*.3)
  foreach(path IN LISTS existing)
    get_filename_component(file_name ${path} NAME)
    string(REGEX REPLACE "\\.3$" "" name ${file_name})
    file(READ ${path} head LIMIT 64)
    if(head MATCHES "^\\.so " AND NOT name IN_LIST names)
      file(REMOVE ${path})
    endif()
  endforeach()

  foreach(name page IN ZIP_LISTS names pages)
    string(REGEX MATCH "[1-9]$" section ${page})
    file(WRITE ${OUT}/${name}.3 ".so man${section}/${page}\n")
  endforeach()
endif()
