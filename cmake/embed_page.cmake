# Writes OUTPUT, a source file with the text of each file in FOLDER; serve/server.h declares it.
set(types .html "text/html; charset=utf-8" .css "text/css; charset=utf-8" .js "text/javascript; charset=utf-8"
          .svg "image/svg+xml")
set(rows "")
foreach(file index.html page.css page.js dom.js reports.js words.js icon.svg)
  file(READ ${FOLDER}/${file} text)
  cmake_path(GET file EXTENSION LAST_ONLY extension)
  list(FIND types ${extension} place)
  math(EXPR place "${place} + 1")
  list(GET types ${place} type)
  string(REPLACE index.html "" path ${file})
  string(APPEND rows "    {\"/${path}\", \"${type}\", R\"PAGE(${text})PAGE\"},\n")
endforeach()
file(WRITE ${OUTPUT} "#include \"serve/server.h\"

std::span<const tavo::tool::PageFile> tavo::tool::PageFiles() {
  static constexpr PageFile kFiles[] = {
${rows}  };
  return kFiles;
}
")
