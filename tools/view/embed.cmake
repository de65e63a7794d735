# Writes a header holding the viewer page (view.html with view.css and
# view.js put in place) as one raw string literal, for the luafxs build.
# cmake -DVIEW_DIR=... -DOUTPUT=... -P embed.cmake
file(READ ${VIEW_DIR}/view.html page)
file(READ ${VIEW_DIR}/view.css style)
file(READ ${VIEW_DIR}/view.js script)
string(REPLACE "/*@@STYLE@@*/" "${style}" page "${page}")
string(REPLACE "//@@SCRIPT@@" "${script}" page "${page}")
string(FIND "${page}" ")luafxsview\"" clash)
if(NOT clash EQUAL -1)
  message(FATAL_ERROR "the viewer page holds the literal's end mark")
endif()
# A literal of at most a few kilobytes per piece keeps every compiler happy.
set(pieces "")
string(LENGTH "${page}" total)
set(offset 0)
while(offset LESS total)
  string(SUBSTRING "${page}" ${offset} 8000 piece)
  string(APPEND pieces "R\"luafxsview(${piece})luafxsview\"\n")
  math(EXPR offset "${offset} + 8000")
endwhile()
file(WRITE ${OUTPUT} "// Generated from tools/view by embed.cmake; edit those files.\n"
  "#pragma once\nnamespace luafxs {\ninline const char* const kViewPage =\n${pieces};\n}\n")
