# cmake -DOUTPUT=file.hpp -DINPUTS=a;b;c -DEXTRA=text -P build_id.cmake
# Writes "#define VERTEXMILL_BUILD_ID ..." with the SHA-256 of the given source files (their
# contents, in the given order) and the extra text (the compiler), so the converted-model cache
# never mixes results of different converting code. The file is rewritten only when the id
# time it is made (it is made only when one of its inputs changed).
set(state "${EXTRA}")
foreach(input IN LISTS INPUTS)
  file(SHA256 "${input}" digest)
  get_filename_component(name "${input}" NAME)
  string(APPEND state "\n${name} ${digest}")
endforeach()
string(SHA256 id "${state}")
set(text "#pragma once\n#define VERTEXMILL_BUILD_ID \"${id}\"\n")
file(WRITE "${OUTPUT}" "${text}")
