#include "common/formats/XMLWriter.h"

#include <string>
#include <string_view>
#include <vector>

namespace zelph {

namespace {

void AppendEscaped(std::string& out, std::string_view value) {
  for (const char c : value) {
    switch (c) {
      case '"':
        out += "&quot;";
        break;
      case '&':
        out += "&amp;";
        break;
      case '\'':
        out += "&apos;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      default:
        out += c;
    }
  }
}

// Writes the start tag of `element`; returns false when it was written as
// an empty-element tag and nothing else is to follow.
bool WriteStartTag(std::string& out, const CXMLNode& element) {
  out += '<';
  out += element.GetName().View();
  for (const auto& attribute : element.GetAttributes()) {
    out += ' ';
    out += attribute->GetName().View();
    out += "='";
    AppendEscaped(out, attribute->GetValue().View());
    out += '\'';
  }
  if (element.GetText().IsEmpty() && element.GetChildren().empty()) {
    out += "/>";
    return false;
  }
  out += '>';
  return true;
}

}  // namespace

CUTF8String WriteXML(const CXMLNode& element) {
  // The bytes of every part are copied as they are; the open elements are
  // kept on a stack so that deep trees cost no call depth.
  struct COpen {
    const CXMLNode* element;
    std::size_t nextChild;
  };
  std::string out;
  std::vector<COpen> open;
  if (WriteStartTag(out, element)) open.push_back({&element, 0});
  while (!open.empty()) {
    COpen& top = open.back();
    const auto& children = top.element->GetChildren();
    if (top.nextChild < children.size()) {
      const CXMLNode& child = *children[top.nextChild++];
      if (WriteStartTag(out, child)) open.push_back({&child, 0});
      continue;
    }
    out += top.element->GetText().View();
    out += "</";
    out += top.element->GetName().View();
    out += '>';
    open.pop_back();
  }
  return CUTF8String(out.data(), out.size());
}

}  // namespace zelph
