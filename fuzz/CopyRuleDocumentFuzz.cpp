// Arbitrary bytes as a copy-rule document. Nothing may crash; a document that reads must write
// back as XML and read again to the same document (exactly, when the input was XML; after one
// generation, when it was binary, whose uids and sub-second dates XML cannot spell); and the
// compiled rules must answer every probed path exactly as the per-path rule does.
#include "QLModel/CompiledCopyRules.h"
#include "QLModel/CopyRuleDisposition.h"
#include "QLModel/CopyRuleDocument.h"
#include "QLSupport/PropertyList.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

namespace {

[[noreturn]] void fail(const char* why) {
    std::fprintf(stderr, "CopyRuleDocumentFuzz: %s\n", why);
    std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace ql;
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    auto doc = CopyRuleDocument::read(bytes, "Fuzz.dset");
    if (!doc) {
        if (doc.error().message().empty()) fail("a refusal without a sentence");
        return 0;
    }

    auto xml = doc->writeXml();
    if (xml) {
        auto again = CopyRuleDocument::read(*xml, "Fuzz.dset");
        if (!again) fail("written XML does not read back");
        if (PropertyList::detectFormat(bytes) == PropertyList::Format::xml && *again != *doc) {
            fail("an XML document changed on its way through the writer");
        }
        auto xml2 = again->writeXml();
        if (!xml2 || *xml2 != *xml) fail("writing is not stable after one generation");
    } else if (xml.error().message().empty()) {
        fail("a write refusal without a sentence");
    }

    // Probe paths made from the document's own items, so that directives actually match.
    std::vector<std::string> paths{"", "a", "a/b"};
    for (const auto& d : doc->directives) {
        if (paths.size() > 64) break;
        const std::string item(d.normalizedItem());
        paths.push_back(item);
        paths.push_back(item + "/x");
        if (const auto slash = item.rfind('/'); slash != std::string::npos) paths.push_back(item.substr(0, slash));
    }
    const auto merged = CopyRuleDisposition::ownDirectives(*doc);
    const auto rules = CompiledCopyRules::compile(merged);
    CopyRuleWalker walker(rules);
    for (const auto& path : paths) {
        if (walker.evaluation(walker.cursorFor(path)) != CopyRuleDisposition::evaluate(merged, path)) {
            fail("the compiled rules disagree with the per-path rule");
        }
    }
    return 0;
}
