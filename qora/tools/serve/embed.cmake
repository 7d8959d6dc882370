# SPDX-License-Identifier: BSD-2-Clause
# cmake -D FOLDER=page -D OUTPUT=page_files.cc -P embed.cmake: the page's files as C++ arrays.
set(types_.html "text/html; charset=utf-8")
set(types_.js "text/javascript; charset=utf-8")
set(types_.css "text/css; charset=utf-8")
set(types_.svg "image/svg+xml")

set(text "#include \"qora/tools/serve/page_files.h\"\n\nnamespace qora::serve {\nnamespace {\n")
file(GLOB files RELATIVE ${FOLDER} ${FOLDER}/*)
list(SORT files)
set(rows "")
set(number 0)
foreach(name ${files})
  file(READ ${FOLDER}/${name} hex HEX)
  string(REGEX REPLACE "(..)" "0x\\1," bytes "${hex}")
  string(APPEND text "constexpr uint8_t kFile${number}[] = {${bytes}};\n")
  get_filename_component(suffix ${name} LAST_EXT)
  set(path "/${name}")
  if(name STREQUAL "index.html")
    set(path "/")
  endif()
  string(APPEND rows
    "    {\"${path}\", \"${types_${suffix}}\", kFile${number}, sizeof kFile${number}},\n")
  math(EXPR number "${number} + 1")
endforeach()
string(APPEND text "\n}  // namespace\n\nconst PageFile kPageFiles[] = {\n${rows}"
  "    {nullptr, nullptr, nullptr, 0},\n};\n\n}  // namespace qora::serve\n")
file(WRITE ${OUTPUT} "${text}")
