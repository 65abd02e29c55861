# cmake -DNM=<nm> -DMODULE=<libquillbox-ui.so> -DOUT=<list> -P module_imports.cmake
# Writes the linker's dynamic list of what the desktop module takes from the
# program: the module's undefined symbols that carry no library version (the
# toolkit's and the C and C++ libraries' carry one). The program exports
# exactly these, instead of every symbol it has. The list is rewritten only
# when it changes, so that the program is linked again only then.
execute_process(COMMAND ${NM} -D --undefined-only ${MODULE}
                OUTPUT_VARIABLE symbols RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "${NM} failed on ${MODULE}")
endif()
string(REGEX MATCHALL "[^\n]+" lines "${symbols}")
set(list "{\n")
foreach(line IN LISTS lines)
  string(REGEX REPLACE "^ *[A-Za-z] +" "" symbol "${line}")
  if(NOT symbol MATCHES "@")
    string(APPEND list "  ${symbol};\n")
  endif()
endforeach()
string(APPEND list "};\n")
file(WRITE ${OUT}.new "${list}")
file(COPY_FILE ${OUT}.new ${OUT} ONLY_IF_DIFFERENT)
file(REMOVE ${OUT}.new)
