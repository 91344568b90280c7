#include "common/formats/XMLReader.h"

#include <cwctype>
#include <string_view>
#include <utility>
#include <vector>

#include "common/base/CException.h"
#include "zelph/trace.h"

namespace zelph {

namespace {

using CCursor = CTStringCursor<CUTF8Encoding>;

[[noreturn]] void Fail(const char* message) {
  throw CXMLException(CUTF8String(message));
}

bool IsSpace(std::int32_t c) noexcept {
  return c >= 0 && std::iswspace(static_cast<wint_t>(c)) != 0;
}

bool IsNameStart(std::int32_t c) noexcept {
  return c >= 0 && (std::iswalpha(static_cast<wint_t>(c)) != 0 || c == '_' || c == ':');
}

bool IsNameChar(std::int32_t c) noexcept {
  return c >= 0 && (std::iswalnum(static_cast<wint_t>(c)) != 0 || c == '-' || c == '.' ||
                    c == '_' || c == ':');
}

// The reader's state: the cursor it walks.
class CReader {
 public:
  explicit CReader(CCursor& cursor) noexcept : cursor_(cursor) {}

  // Reads one element with its content, see ParseXMLElement. Open elements
  // are kept on a stack of their own, so nesting depth costs no call depth.
  CXMLNodeRef ReadElement() {
    CXMLNodeRef root;
    if (!ReadStartTag(root)) return root;
    std::vector<CXMLNodeRef> open{root};
    for (;;) {
      CXMLNode& element = *open.back();
      element.AppendText(ReadTextPiece());
      Skip();
      if (LookingAt("</")) {
        ReadEndTag(element);
        open.pop_back();
        if (open.empty()) return root;
        Skip();
        continue;
      }
      CXMLNodeRef child;
      const bool hasContent = ReadStartTag(child);
      element.AddChild(child);
      if (hasContent) {
        open.push_back(std::move(child));
      } else {
        Skip();
      }
    }
  }

 private:
  std::int32_t Peek() const noexcept { return cursor_.Peek(); }
  std::int32_t Next() noexcept { return cursor_.Next(); }

  // True when the next characters are the ASCII text `text`.
  bool LookingAt(std::string_view text) const noexcept {
    CCursor ahead(cursor_);
    for (const char c : text) {
      if (ahead.Next() != c) return false;
    }
    return true;
  }

  void SkipSpace() noexcept {
    while (IsSpace(Peek())) Next();
  }

  // White space, then at most one comment and the white space behind it.
  void Skip() {
    SkipSpace();
    if (!LookingAt("<!--")) return;
    for (int i = 0; i < 4; ++i) Next();
    int dashes = 0;
    for (;;) {
      const std::int32_t c = Next();
      if (c < 0) {
        TraceString("Warning: XML Comment never ends");
        return;
      }
      if (c == '>' && dashes >= 2) break;
      dashes = c == '-' ? dashes + 1 : 0;
    }
    SkipSpace();
  }

  // A name, or the empty string when none starts here.
  CUTF8String ReadName() {
    CUTF8String name;
    if (!IsNameStart(Peek())) return name;
    do {
      name.AppendChar(static_cast<std::uint32_t>(Next()));
    } while (IsNameChar(Peek()));
    return name;
  }

  // The character a reference stands for; the "&" has been read.
  std::uint32_t ReadReference() {
    const CUTF8String name = ReadName();
    if (Peek() != ';') Fail("XML: ';' character expected");
    Next();
    const std::string_view n = name.View();
    if (n == "lt") return '<';
    if (n == "gt") return '>';
    if (n == "amp") return '&';
    if (n == "apos") return '\'';
    if (n == "quot") return '"';
    Fail("XML: Invalid character reference");
  }

  // A quoted attribute value with its references replaced.
  CUTF8String ReadAttributeValue() {
    const std::int32_t quote = Peek();
    if (quote != '"' && quote != '\'') Fail("XML: Expecting quotes for attribute value");
    Next();
    CUTF8String value;
    for (;;) {
      const std::int32_t c = Next();
      if (c < 0) Fail("XML: End of file within attribute value");
      if (c == quote) return value;
      value.AppendChar(c == '&' ? ReadReference() : static_cast<std::uint32_t>(c));
    }
  }

  void ReadAttributes(CXMLNode& element) {
    for (;;) {
      const CUTF8String name = ReadName();
      if (name.IsEmpty()) return;
      Skip();
      if (Peek() != '=') Fail("XML: '=' character expected");
      Next();
      Skip();
      const CUTF8String value = ReadAttributeValue();
      element.AddAttribute(name, value);
      Skip();
    }
  }

  // Reads a start tag, an empty-element tag or a processing instruction into
  // `element`. Returns true when content follows (the tag ended with ">").
  bool ReadStartTag(CXMLNodeRef& element) {
    if (Peek() != '<') Fail("XML: '<' character expected");
    Next();
    if (Peek() == '?') {
      Next();
      const CUTF8String target = ReadName();
      if (target.IsEmpty()) Fail("XML: Tag name expected");
      element = MakeRef<CXMLNode>(CUTF8String("?") + target);
      Skip();
      ReadAttributes(*element);
      if (Next() != '?' || Next() != '>') Fail("XML: '?>' sequence expected");
      return false;
    }
    const CUTF8String name = ReadName();
    if (name.IsEmpty()) Fail("XML: Tag name expected");
    element = MakeRef<CXMLNode>(name);
    Skip();
    ReadAttributes(*element);
    const std::int32_t c = Peek();
    if (c == '/') {
      Next();
      if (Next() != '>') Fail("XML: '>' character expected");
      return false;
    }
    if (c != '>') Fail("XML: '>' or '/>' sequence expected");
    Next();
    Skip();
    return true;
  }

  // Character data up to the next "<", references replaced, white space at
  // its end held back until something else follows.
  CUTF8String ReadTextPiece() {
    CUTF8String piece;
    CUTF8String heldSpace;
    for (;;) {
      std::int32_t c = Peek();
      if (c < 0) Fail("XML: Unclosed tag");
      if (c == '<') return piece;
      Next();
      if (c == '&') {
        c = static_cast<std::int32_t>(ReadReference());
      } else if (IsSpace(c)) {
        heldSpace.AppendChar(static_cast<std::uint32_t>(c));
        continue;
      }
      if (!heldSpace.IsEmpty()) {
        piece += heldSpace;
        heldSpace.Clear();
      }
      piece.AppendChar(static_cast<std::uint32_t>(c));
    }
  }

  // Reads "</name ...>" closing `element`; a different name is only
  // reported.
  void ReadEndTag(const CXMLNode& element) {
    Next();
    Next();
    if (ReadName() != element.GetName()) TraceString("Warning: XML: Inconsistent ending tag");
    for (;;) {
      const std::int32_t c = Next();
      if (c < 0) Fail("XML: '>' character expected");
      if (c == '>') return;
    }
  }

  CCursor& cursor_;
};

}  // namespace

CXMLNodeRef ParseXMLElement(CTStringCursor<CUTF8Encoding>& cursor) {
  return CReader(cursor).ReadElement();
}

CXMLNodeRef ParseXMLDocument(CTStringCursor<CUTF8Encoding>& cursor) {
  CReader reader(cursor);
  CXMLNodeRef element = reader.ReadElement();
  if (element->GetName().View() == "?xml") element = reader.ReadElement();
  return element;
}

}  // namespace zelph
