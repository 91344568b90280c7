// Fuzzes the XML reader and writer: arbitrary bytes are parsed as a document;
// a tree that the writer can express is written, parsed again and written
// again, which must give the same text. The writer leaves texts unescaped and
// writes processing instructions as empty elements, so trees with "<" or "&"
// in a text or with a processing instruction are only written.
#include "FuzzSupport.h"
#include "common/base/CException.h"
#include "common/formats/XMLReader.h"
#include "common/formats/XMLWriter.h"

using namespace zelph;

namespace {

bool Writable(const CXMLNode& node) {
  if (node.GetName().View().starts_with("?") ||
      node.GetText().View().find_first_of("<&") != std::string_view::npos) {
    return false;
  }
  for (const CXMLNodeRef& child : node.GetChildren())
    if (!Writable(*child)) return false;
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  CUTF8String text(reinterpret_cast<const char*>(data), size);
  CTStringCursor<CUTF8Encoding> cursor(text);
  CXMLNodeRef root;
  try {
    root = ParseXMLDocument(cursor);
  } catch (const CXMLException&) {
    return 0;
  }
  Require(root.Get() != nullptr && cursor.GetIndex() <= text.Size(),
          "a tree, read inside the text");
  CUTF8String written = WriteXML(*root);
  if (!Writable(*root)) return 0;
  CTStringCursor<CUTF8Encoding> again(written);
  try {
    Require(WriteXML(*ParseXMLDocument(again)) == written, "a written tree reads back the same");
  } catch (const CXMLException&) {
    Require(false, "the reader accepts what the writer wrote");
  }
  Require(again.GetIndex() == written.Size(), "the written element is read to its end");
  return 0;
}
