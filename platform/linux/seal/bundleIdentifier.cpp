// bundleIdentifier.cpp -- bundle identifiers on Linux, from the property list in XML or binary form.
//
// The list is untrusted, so a mature XML parser reads it, and anything that a property list does not need
// makes it stop: above all, declarations of entities.
// Tests: tests/unit/bundleIdentifier_test.cpp

#include "platform/linux/seal/bundleIdentifier.h"

#include <expat.h>

#include <climits>
#include <memory>
#include <string_view>

#include "platform/linux/seal/binaryPropertyList.h"
#include "platform/linux/seal/smallFile.h"

namespace {

constexpr char kPropertyList[] = "Contents/Info.plist";
constexpr size_t kMaxPropertyList = size_t{1} << 20;
constexpr std::string_view kKey = "CFBundleIdentifier";

struct ParserFreer {
  void operator()(XML_Parser parser) const noexcept { XML_ParserFree(parser); }
};
using Parser = std::unique_ptr<std::remove_pointer_t<XML_Parser>, ParserFreer>;

// Finds <plist><dict><key>CFBundleIdentifier</key><string>...</string>; deeper levels are ignored.
class Search {
  static constexpr size_t kMaxText = 1024;
  static constexpr int kEntryDepth = 3;

  XML_Parser parser_;
  int depth_ = 0;
  bool inPlist_ = false;
  bool inDict_ = false;
  bool collecting_ = false;  // inside a <key>, or the <string> to be found
  bool sought_ = false;      // the last key was CFBundleIdentifier
  char text_[kMaxText + 1];
  size_t length_ = 0;
  HeapStr result_;

 public:
  explicit Search(XML_Parser parser) : parser_(parser) {
    XML_SetUserData(parser, this);
    XML_SetElementHandler(
        parser,
        [](void *self, const XML_Char *name, const XML_Char **) {
          static_cast<Search *>(self)->Start(name);
        },
        [](void *self, const XML_Char *name) { static_cast<Search *>(self)->End(name); });
    XML_SetCharacterDataHandler(parser, [](void *self, const XML_Char *text, int length) {
      static_cast<Search *>(self)->Text({text, static_cast<size_t>(length)});
    });
    XML_SetEntityDeclHandler(parser, [](void *self, const XML_Char *, int, const XML_Char *, int,
                                        const XML_Char *, const XML_Char *, const XML_Char *,
                                        const XML_Char *) { static_cast<Search *>(self)->Stop(); });
  }

  // The string; null with errno set unless the list is well-formed and has the key exactly once, with a
  // string that is not empty.
  HeapStr Run(std::string_view list) {
    errno = ENODATA;
    if (XML_Parse(parser_, list.data(), static_cast<int>(list.size()), 1) == XML_STATUS_OK) {
      return std::move(result_);
    }
    if (XML_GetErrorCode(parser_) == XML_ERROR_NO_MEMORY) errno = ENOMEM;
    return nullptr;
  }

 private:
  void Stop() { XML_StopParser(parser_, XML_FALSE); }

  void Start(std::string_view name) {
    depth_++;
    if (depth_ == 1) inPlist_ = name == "plist";
    if (depth_ == 2) inDict_ = inPlist_ && name == "dict";
    if (depth_ > kEntryDepth && collecting_) Stop();
    if (depth_ != kEntryDepth || !inDict_) return;
    if (sought_ && name != "string") Stop();
    collecting_ = name == "key" || sought_;
    length_ = 0;
  }

  void Text(std::string_view text) {
    if (!collecting_) return;
    if (text.size() > kMaxText - length_) return Stop();
    text.copy(text_ + length_, text.size());
    length_ += text.size();
  }

  void End(std::string_view name) {
    if (depth_-- != kEntryDepth || !collecting_) return;
    collecting_ = false;
    if (name == "key") {
      sought_ = std::string_view(text_, length_) == kKey;
      return;
    }
    sought_ = false;
    if (result_ != nullptr || length_ == 0) return Stop();
    text_[length_] = '\0';
    result_.reset(strdup(text_));
  }
};

HeapStr FindInXml(std::string_view list) {
  static_assert(kMaxPropertyList <= INT_MAX);
  const Parser parser(XML_ParserCreate(nullptr));
  if (parser != nullptr) return Search(parser.get()).Run(list);
  errno = ENOMEM;
  return nullptr;
}

}  // namespace

HeapStr BundleIdentifier_Read(int bundle) {
  const Fd fd = SmallFileOpen(bundle, kPropertyList, SmallFileAny);
  SmallFileBytes list;
  if (!fd || !SmallFileRead(fd.Get(), kMaxPropertyList, &list)) return nullptr;
  return BinaryPropertyList_Is(list.View()) ? BinaryPropertyList_Find(list.View(), kKey)
                                            : FindInXml(list.View());
}
