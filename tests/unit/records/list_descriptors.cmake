# cmake -DHEADERS=a.h;b.h -DOUT=file -P list_descriptors.cmake
#
# Writes one row per descriptor that the generated headers declare, MESSAGE_DESCRIPTOR(symbol) or ENUM_DESCRIPTOR(symbol),
# so that a test walks everything that was generated, also what nobody expected there.
set(rows "// Generated: every descriptor of the record packages.\n")
foreach(header IN LISTS HEADERS)
  file(STRINGS ${header} lines REGEX "^extern const ProtobufC(Message|Enum)Descriptor +[a-z0-9_]+;")
  foreach(line IN LISTS lines)
    string(REGEX REPLACE "^extern const ProtobufC(Message|Enum)Descriptor +([a-z0-9_]+);.*" "\\1;\\2" parts "${line}")
    list(GET parts 0 kind)
    list(GET parts 1 symbol)
    string(TOUPPER ${kind} kind)
    string(APPEND rows "${kind}_DESCRIPTOR(${symbol})\n")
  endforeach()
endforeach()
file(WRITE ${OUT} "${rows}")
