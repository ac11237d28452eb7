# Puts files into a C++ source:
# cmake -DFOLDER=tools/kep-fleet/page -DFILES=a;b -DOUTPUT=page_files.cpp -P KepEmbed.cmake
set(arrays "")
set(rows "")
set(number 0)
foreach(file IN LISTS FILES)
  file(READ ${FOLDER}/${file} bytes HEX)
  string(REGEX REPLACE "(..)" "'\\\\x\\1'," bytes "${bytes}")
  string(REGEX REPLACE "('[^']*',){24}" "\\0\n" bytes "${bytes}")
  file(MD5 ${FOLDER}/${file} tag)
  string(APPEND arrays "const char file${number}[] = {\n${bytes}};\n")
  string(APPEND rows "      {\"${file}\", {file${number}, sizeof file${number}}, \"${tag}\"},\n")
  math(EXPR number "${number} + 1")
endforeach()
file(WRITE ${OUTPUT} "#include \"kep-fleet/page_files.hpp\"\n
namespace kepfleet {\n
namespace {\n
${arrays}
}  // namespace\n
const std::vector<PageFile> &pageFiles() {
  static const std::vector<PageFile> files = {
${rows}  };
  return files;
}\n
}  // namespace kepfleet\n")
