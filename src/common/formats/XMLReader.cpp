#include "common/formats/XMLReader.h"

#include <array>
#include <cstdint>
#include <cstring>
#include <cwctype>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "common/base/CException.h"
#include "common/base/CharClasses.h"
#include "common/formats/CRecordPool.h"
#include "common/formats/CSharedTexts.h"
#include "zelph/trace.h"

namespace zelph {

namespace {

using CCursor = CTStringCursor<CUTF8Encoding>;

[[noreturn]] void Fail(const char* message) {
  throw CXMLException(CUTF8String(message));
}

// The ASCII classes are the same in every locale, so only other characters
// ask the locale. Bytes are looked up in a table of classes; bytes of 0x80
// and above, and the zero byte, are in none, so that a run of bytes of a
// class stops at them (and at the terminator behind the text) and the
// character there is decoded and judged one by one.
constexpr unsigned char kSpace = 1;
constexpr unsigned char kNameStart = 2;
constexpr unsigned char kNameChar = 4;
constexpr unsigned char kPlainText = 8;  // taken by text as it stands
constexpr unsigned char kValueText = 16;  // taken by an attribute value, quotes included

constexpr std::array<unsigned char, 256> MakeByteClasses() {
  std::array<unsigned char, 256> classes{};
  for (int c = 1; c < 128; ++c) {
    const bool letter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
    const bool space = IsAsciiSpace(c);
    unsigned char bits = 0;
    if (space) bits |= kSpace;
    if (letter || c == '_' || c == ':') bits |= kNameStart;
    if (letter || (c >= '0' && c <= '9') || c == '-' || c == '.' || c == '_' || c == ':') {
      bits |= kNameChar;
    }
    if (!space && c != '<' && c != '&') bits |= kPlainText;
    if (c != '&') bits |= kValueText;
    classes[static_cast<std::size_t>(c)] = bits;
  }
  return classes;
}
constexpr std::array<unsigned char, 256> kByteClasses = MakeByteClasses();

// True when the byte `b` is of class `bits` (never for 0 or 0x80 and above).
inline bool ByteIs(unsigned char b, unsigned char bits) noexcept {
  return (kByteClasses[b] & bits) != 0;
}

bool IsNameStart(std::int32_t c) noexcept {
  if (c < 0) return false;
  if (c < 0x80) return c != 0 && ByteIs(static_cast<unsigned char>(c), kNameStart);
  return std::iswalpha(static_cast<wint_t>(c)) != 0;
}

bool IsNameChar(std::int32_t c) noexcept {
  if (c < 0) return false;
  if (c < 0x80) return c != 0 && ByteIs(static_cast<unsigned char>(c), kNameChar);
  return std::iswalnum(static_cast<wint_t>(c)) != 0;
}

// Appends `c` to `out` as a string stores it (UTF-8, "?" for a surrogate or
// U+FFFE).
void AppendUTF8(std::string& out, std::int32_t c) {
  char bytes[4];
  out.append(bytes, EncodeUTF8(static_cast<std::uint32_t>(c), bytes));
}

// An element whose start tag has been read: its name and where its
// attributes, children and text begin on the reader's scratch stacks. The
// node itself is built when the element ends, with everything at once.
struct COpenElement {
  CUTF8String name;
  std::size_t attributes = 0;
  std::size_t children = 0;
  std::size_t text = 0;
};

// The reader's state: the text it walks and its place in it, which goes back
// to the cursor when the reader is done (also after an error). The text is
// read byte by byte while it is ASCII and character by character otherwise,
// with the cursor's decoding rules; runs of ASCII that need no attention are
// copied at once.
//
// What an element is made of is gathered on scratch stacks that the whole
// parse reuses: its attributes, its finished children and its text (the
// text of a child goes on top of its parent's and is taken off when the
// child ends, so each element's pieces lie together). When the element
// ends, its node, attributes and tables are built at once in a chunk of the
// record pool.
class CReader {
 public:
  explicit CReader(CCursor& cursor) noexcept
      : cursor_(cursor),
        data_(reinterpret_cast<const unsigned char*>(cursor.GetString()->c_str())),
        size_(cursor.GetString()->Size()),
        index_(cursor.GetIndex()),
        // The records take about twice the bytes of their text.
        pool_(index_ < size_ ? 2 * (size_ - index_) : 0) {}
  CReader(const CReader&) = delete;
  CReader& operator=(const CReader&) = delete;
  ~CReader() { cursor_.SetIndex(index_); }

  // Reads one element with its content, see ParseXMLElement. Open elements
  // are kept on a stack of their own, so nesting depth costs no call depth.
  CXMLNodeRef ReadElement() {
    COpenElement first;
    if (!ReadStartTag(first)) return Build(first);
    open_.push_back(std::move(first));
    for (;;) {
      ReadTextPiece();
      Skip();
      if (LookingAt("</")) {
        ReadEndTag(open_.back().name);
        CXMLNodeRef node = Build(open_.back());
        open_.pop_back();
        if (open_.empty()) return node;
        children_.push_back(std::move(node));
        Skip();
        continue;
      }
      COpenElement child;
      if (ReadStartTag(child)) {
        open_.push_back(std::move(child));
      } else {
        children_.push_back(Build(child));
        Skip();
      }
    }
  }

 private:
  // True when the byte at `i` is ASCII, which is a character of its own.
  bool AsciiAt(std::uint64_t i) const noexcept { return i < size_ && data_[i] < 0x80; }

  std::int32_t NextAt(std::uint64_t& i) const noexcept {
    if (AsciiAt(i)) return data_[i++];
    return DecodeUTF8At(data_, size_, i);
  }
  std::int32_t Peek() const noexcept {
    std::uint64_t i = index_;
    return NextAt(i);
  }
  std::int32_t Next() noexcept { return NextAt(index_); }

  // True when the next characters are the ASCII text `text`.
  bool LookingAt(std::string_view text) const noexcept {
    std::uint64_t i = index_;
    for (const char c : text) {
      if (NextAt(i) != c) return false;
    }
    return true;
  }

  void SkipSpace() noexcept {
    for (;;) {
      while (ByteIs(data_[index_], kSpace)) ++index_;
      if (AsciiAt(index_) || !IsSpaceChar(Peek())) return;
      Next();
    }
  }

  // White space, then at most one comment and the white space behind it.
  void Skip() {
    SkipSpace();
    if (AsciiAt(index_) && data_[index_] != '<') return;
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

  // Moves past a name and returns its bytes as they stand in the text
  // (empty when no name starts here); `ascii` tells whether they are all
  // ASCII, and so the name itself.
  std::string_view ScanName(bool& ascii) noexcept {
    ascii = true;
    const std::uint64_t start = index_;
    if (!IsNameStart(Peek())) return {};
    for (;;) {
      while (ByteIs(data_[index_], kNameChar)) ++index_;
      if (AsciiAt(index_)) break;
      std::uint64_t i = index_;
      if (!IsNameChar(DecodeUTF8At(data_, size_, i))) break;
      index_ = i;
      ascii = false;
    }
    return {reinterpret_cast<const char*>(data_ + start), index_ - start};
  }

  // The name whose bytes ScanName returned: as they are when ASCII, else
  // each character decoded again and stored as a string stores it (in
  // nameScratch_, valid until its next use).
  std::string_view NameText(std::string_view bytes, bool ascii) {
    if (ascii) return bytes;
    nameScratch_.clear();
    const char* p = bytes.data();
    const char* end = p + bytes.size();
    for (std::int32_t c = DecodeUTF8(p, end); c >= 0; c = DecodeUTF8(p, end)) {
      AppendUTF8(nameScratch_, c);
    }
    return nameScratch_;
  }

  // A name, or the empty string when none starts here. Names repeat, so a
  // name read before shares the earlier one's buffer.
  CUTF8String ReadName() {
    bool ascii = true;
    const std::string_view bytes = ScanName(ascii);
    if (bytes.empty()) return {};
    return names_.Get(NameText(bytes, ascii));
  }

  // The character a reference stands for; the "&" has been read.
  std::uint32_t ReadReference() {
    bool ascii = true;
    const std::string_view bytes = ScanName(ascii);
    if (Peek() != ';') Fail("XML: ';' character expected");
    Next();
    const std::string_view n = NameText(bytes, ascii);
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
    scratch_.clear();
    for (bool first = true;; first = false) {
      const std::uint64_t start = index_;
      while (data_[index_] != quote && ByteIs(data_[index_], kValueText)) ++index_;
      if (first && index_ < size_ && data_[index_] == quote) {
        // The usual value: plain ASCII up to its closing quote.
        const std::string_view text(reinterpret_cast<const char*>(data_ + start), index_ - start);
        ++index_;
        return MakeText(text);
      }
      scratch_.append(reinterpret_cast<const char*>(data_ + start), index_ - start);
      const std::int32_t c = Next();
      if (c < 0) Fail("XML: End of file within attribute value");
      if (c == quote) return MakeText(scratch_);
      AppendUTF8(scratch_, c == '&' ? static_cast<std::int32_t>(ReadReference()) : c);
    }
  }

  // Reads the attributes of a tag onto the attribute stack.
  void ReadAttributes() {
    for (;;) {
      CUTF8String name = ReadName();
      if (name.IsEmpty()) return;
      Skip();
      if (Peek() != '=') Fail("XML: '=' character expected");
      Next();
      Skip();
      CUTF8String value = ReadAttributeValue();
      attributes_.push_back({std::move(name), std::move(value)});
      Skip();
    }
  }

  // Reads a start tag, an empty-element tag or a processing instruction into
  // `element`. Returns true when content follows (the tag ended with ">").
  bool ReadStartTag(COpenElement& element) {
    if (Peek() != '<') Fail("XML: '<' character expected");
    Next();
    element.attributes = attributes_.size();
    element.children = children_.size();
    element.text = text_.size();
    if (Peek() == '?') {
      Next();
      bool ascii = true;
      const std::string_view bytes = ScanName(ascii);
      if (bytes.empty()) Fail("XML: Tag name expected");
      const std::string target(NameText(bytes, ascii));
      element.name = names_.Get("?" + target);
      Skip();
      ReadAttributes();
      if (Next() != '?' || Next() != '>') Fail("XML: '?>' sequence expected");
      return false;
    }
    element.name = ReadName();
    if (element.name.IsEmpty()) Fail("XML: Tag name expected");
    Skip();
    ReadAttributes();
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

  // Reads character data up to the next "<" onto the text stack, references
  // replaced; white space at its end is held back (it stays on the stack
  // beyond `kept`) and is kept only when something else follows.
  void ReadTextPiece() {
    std::size_t kept = text_.size();
    for (;;) {
      if (ByteIs(data_[index_], kPlainText | kSpace)) {
        // A run of ASCII text and white space: what lies up to its last
        // text byte goes in at once, the white space behind that is held.
        const std::uint64_t start = index_;
        while (ByteIs(data_[index_], kPlainText | kSpace)) ++index_;
        std::uint64_t textEnd = index_;
        while (textEnd > start && ByteIs(data_[textEnd - 1], kSpace)) --textEnd;
        const bool atTag = data_[index_] == '<';
        if (textEnd > start) {
          text_.append(reinterpret_cast<const char*>(data_ + start), textEnd - start);
          kept = text_.size();
        }
        if (atTag) break;
        if (index_ > textEnd) {
          text_.append(reinterpret_cast<const char*>(data_ + textEnd), index_ - textEnd);
        }
        continue;
      }
      std::int32_t c = Peek();
      if (c < 0) Fail("XML: Unclosed tag");
      if (c == '<') break;
      Next();
      if (c == '&') {
        c = static_cast<std::int32_t>(ReadReference());
      } else if (IsSpaceChar(c)) {
        AppendUTF8(text_, c);
        continue;
      }
      AppendUTF8(text_, c);
      kept = text_.size();
    }
    text_.resize(kept);
  }

  // Reads "</name ...>" closing the element named `name`; a different name
  // is only reported.
  void ReadEndTag(const CUTF8String& name) {
    Next();
    Next();
    bool ascii = true;
    const std::string_view bytes = ScanName(ascii);
    if (NameText(bytes, ascii) != name.View()) {
      TraceString("Warning: XML: Inconsistent ending tag");
    }
    for (;;) {
      const std::int32_t c = Next();
      if (c < 0) Fail("XML: '>' character expected");
      if (c == '>') return;
    }
  }

  // `text` as a string; short ones are shared.
  CUTF8String MakeText(std::string_view text) {
    return text.size() <= kSharedLength ? values_.Get(text) : CUTF8String(text.data(), text.size());
  }

  // Builds the node of `element` from what lies above its marks on the
  // scratch stacks, and takes that off them.
  CXMLNodeRef Build(const COpenElement& element) {
    const CUTF8String text = MakeText(std::string_view(text_).substr(element.text));
    CXMLNodeRef node = CXMLNode::MakePooled(
        pool_, element.name, text, attributes_.data() + element.attributes,
        attributes_.size() - element.attributes, children_.data() + element.children,
        children_.size() - element.children);
    attributes_.erase(attributes_.begin() + static_cast<std::ptrdiff_t>(element.attributes),
                      attributes_.end());
    children_.erase(children_.begin() + static_cast<std::ptrdiff_t>(element.children),
                    children_.end());
    text_.resize(element.text);
    return node;
  }

  // Values and texts up to this length are shared: longer ones seldom
  // repeat.
  static constexpr std::size_t kSharedLength = 16;

  CCursor& cursor_;
  const unsigned char* data_;  // zero-terminated: data_[size_] is 0
  std::uint64_t size_;
  std::uint64_t index_;
  CRecordPool pool_;
  std::vector<COpenElement> open_;
  std::vector<CXMLAttributeText> attributes_;
  std::vector<CXMLNodeRef> children_;
  std::string text_;
  std::string scratch_;      // an attribute value being read
  std::string nameScratch_;  // a name beyond ASCII
  CSharedTexts names_;
  CSharedTexts values_;
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
