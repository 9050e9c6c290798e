# Writes the page's files into a C++ source: cmake -DROOT=DIR "-DFILES=NAME|NAME..." -DOUTPUT=FILE -P embed.cmake

string(REPLACE "|" ";" files "${FILES}")
set(arrays "")
set(entries "")
foreach(file IN LISTS files)
  file(READ ${ROOT}/${file} digits HEX)
  string(REGEX REPLACE "([0-9a-f][0-9a-f])" "'\\\\x\\1'," bytes "${digits}")
  string(MAKE_C_IDENTIFIER ${file} name)
  string(APPEND arrays "const char ${name}[] = {${bytes}};\n")
  string(APPEND entries "    {\"${file}\", {${name}, sizeof(${name})}},\n")
endforeach()
file(WRITE ${OUTPUT} "// Written by tools/page/embed.cmake.\n#include \"tools/report_page.h\"\n
namespace opkit::tools {\nnamespace {\n\n${arrays}\nconst PageFile kFiles[] = {\n${entries}};\n\n}  // namespace\n
std::span<const PageFile> PageFiles()\n{\n    return kFiles;\n}\n\n}  // namespace opkit::tools\n")
