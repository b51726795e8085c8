# Joins the page's parts into one document and writes it as bytes for a C++ array: neither the charset
# of string literals nor their length must touch it.
#     cmake -D PAGE=directory -D OUT=file -P page.cmake
file(READ ${PAGE}/index.html page)
foreach(part IN ITEMS STYLE:style.css,narrow.css SCRIPT:format.js,series.js,table.js,details.js,main.js)
  string(REGEX MATCH "^([A-Z]+):(.*)$" ignored "${part}")
  set(mark "@${CMAKE_MATCH_1}@")
  string(REPLACE "," ";" files "${CMAKE_MATCH_2}")
  set(text "")
  foreach(file IN LISTS files)
    file(READ ${PAGE}/${file} one)
    string(APPEND text "${one}")
  endforeach()
  string(REPLACE "${mark}" "${text}" page "${page}")
endforeach()
file(WRITE ${OUT}.html "${page}")
file(READ ${OUT}.html bytes HEX)
string(REGEX REPLACE "(..)" "0x\\1," bytes "${bytes}")
file(WRITE ${OUT} "${bytes}\n")
