#include <gtest/gtest.h>
#include <sys/stat.h>

#include <charconv>
#include <string>
#include <vector>

#include "../support/TempDir.h"
#include "FileTestHelpers.h"
#include "base/Log.h"
#include "base/xml/XmlDocument.h"

using namespace qor;
using qor::test::listNames;
using qor::test::readText;
using qor::test::TempDir;
using qor::test::writeText;

namespace {

// The tree below `node` as text that names every element, attribute (in order) and text, so two
// trees compare with one EXPECT_EQ.
void dump(const NodeIterator& node, std::string& out, int depth = 0) {
    out += std::string(depth, ' ') + "<" + std::string(node.name());
    for (XmlAttribute a : node.attributes())
        out += " [" + std::string(a.name) + "=" + std::string(a.value) + "]";
    out += " text=[" + std::string(node.text()) + "]\n";
    for (NodeIterator child : node.children()) dump(child, out, depth + 1);
}

std::string dump(const XmlDocumentRapid& doc) {
    std::string out;
    if (doc.root()) dump(doc.root(), out);
    return out;
}

// Every kind of value a bag or book file may hold.
const std::string kQuotes = "say \"cheese\" and 'smile'";
const std::string kMarkup = "a<b>c & d &amp; ]]> <!-- no comment -->";
const std::string kControl = std::string(
    "tab\tline\nreturn\rbell\x07"
    "end\x1f");
const std::string kText = "first line\r\n  second <line> & more\rlast\x01\t";
const std::string kUnicode = "Zürich · 東京 · 😀 · Ελλάδα";

XmlDocumentRapid sampleDocument() {
    XmlDocumentRapid doc;
    NodeIterator bag = doc.create("bag");
    bag.appendAttribute("name", kUnicode)
        .appendAttribute("type", "event")
        .appendAttribute("persistent_str", "lib:/2024/Summer & Sun");
    bag.appendChild("metadata")
        .appendAttribute("quotes", kQuotes)
        .appendAttribute("markup", kMarkup);
    NodeIterator settings = bag.appendChild("settings");
    settings.appendChild("description").setText(kText);
    settings.appendChild("blank").setText("   ");
    NodeIterator root = bag.appendChild("group");
    root.appendAttribute("type", "root")
        .appendAttribute("tag:z", "last")
        .appendAttribute("tag:a", "first");
    NodeIterator family = root.appendChild("group");
    family.appendAttribute("type", "family");
    family.appendChild("item")
        .appendAttribute("name", "a.jpg")
        .appendAttribute("tag:family", "original");
    family.appendChild("item")
        .appendAttribute("name", "a_edit.jpg")
        .appendAttribute("control", kControl);
    root.appendChild("item").appendAttribute("name", "").appendAttribute("empty", "");
    return doc;
}

}  // namespace

TEST(XmlDocumentRapid, FileRoundTripKeepsTreeOrderAndEveryCharacter) {
    TempDir dir(nullptr, "qor-xml");
    ASSERT_TRUE(dir.ok());
    const XmlDocumentRapid written = sampleDocument();
    const std::string expected = dump(written);
    for (unsigned format :
         {unsigned(XmlIndent), unsigned(XmlCompact), unsigned(XmlIndent | XmlNoDeclaration)}) {
        SCOPED_TRACE(format);
        const std::string path = dir / "sample.bag";
        ASSERT_TRUE(written.save(path, format, XmlDurable));
        XmlDocumentRapid read;
        ASSERT_TRUE(read.load(path, false));
        EXPECT_EQ(dump(read), expected);

        XmlDocumentRapid fromText;
        ASSERT_TRUE(fromText.loadFromString(written.toString(format)));
        EXPECT_EQ(dump(fromText), expected);
        EXPECT_EQ(written.toString(format).find("<?xml") == 0, !(format & XmlNoDeclaration));
    }
    // The values themselves, not only their agreement with the writer's view.
    XmlDocumentRapid read;
    ASSERT_TRUE(read.load(dir / "sample.bag"));
    const NodeIterator bag = read.root();
    EXPECT_EQ(bag.attribute("name"), kUnicode);
    EXPECT_EQ(bag.child("metadata").attribute("quotes"), kQuotes);
    EXPECT_EQ(bag.child("metadata").attribute("markup"), kMarkup);
    EXPECT_EQ(bag.child("settings").child("description").text(), kText);
    EXPECT_EQ(bag.child("settings").child("blank").text(), "   ");
    const NodeIterator edited = bag.child("group").child("group").firstChild().nextSibling();
    EXPECT_EQ(edited.attribute("control"), kControl);
}

TEST(XmlDocumentRapid, NavigatesElementsInOrderAndSkipsText) {
    XmlDocumentRapid doc;
    ASSERT_TRUE(doc.loadFromString(
        "<?xml version=\"1.0\"?>\n<!-- index -->\n<library>\n  text before\n"
        "  <bag name=\"one\" type=\"event\"><metadata a=\"1\"/></bag>\n  <!-- note -->\n"
        "  <other/>\n  <bag name=\"two\"><settings/><metadata/></bag>\n<?pi x?></library>\n"));
    const NodeIterator library = doc.root();
    ASSERT_TRUE(library);
    EXPECT_EQ(library.name(), "library");
    EXPECT_FALSE(library.parent());

    std::vector<std::string> all;
    for (NodeIterator n : library.children()) all.emplace_back(n.name());
    EXPECT_EQ(all, (std::vector<std::string>{"bag", "other", "bag"}));
    std::vector<std::string> bags;
    for (NodeIterator n : library.children("bag")) bags.emplace_back(n.attribute("name"));
    EXPECT_EQ(bags, (std::vector<std::string>{"one", "two"}));

    const NodeIterator one = library.firstChild();
    EXPECT_EQ(one.parent(), library);
    EXPECT_EQ(one.nextSibling("bag").attribute("name"), "two");
    EXPECT_EQ(one.nextSibling().name(), "other");
    EXPECT_EQ(one.firstChild().name(), "metadata");
    EXPECT_EQ(one.nextSibling("bag").firstChild().name(), "settings");
    EXPECT_FALSE(one.nextSibling("bag").nextSibling());
    EXPECT_EQ(one.attribute("missing"), "");
    EXPECT_FALSE(one.hasAttribute("missing"));
    EXPECT_TRUE(one.hasAttribute("type"));
    EXPECT_FALSE(library.child("nothing"));

    // The tag attributes of a node, as the bag reader picks them.
    XmlDocumentRapid tags;
    ASSERT_TRUE(tags.loadFromString(
        R"(<item name="x" tag:b="2" other="o" tag:a="1" tag:="empty key" tag="no prefix"/>)"));
    std::vector<std::string> found;
    for (XmlAttribute a : tags.root().attributes()) {
        if (a.name.size() >= 4 && a.name.substr(0, 4) == "tag:")
            found.push_back(std::string(a.name.substr(4)) + "=" + std::string(a.value));
    }
    EXPECT_EQ(found, (std::vector<std::string>{"b=2", "a=1", "=empty key"}));
}

TEST(XmlDocumentRapid, EditsAttributesTextAndChildren) {
    XmlDocumentRapid doc;
    NodeIterator root = doc.create("book");
    root.appendAttribute("covertype", 3)
        .appendAttribute("offset", 0.1)
        .appendAttribute("big", -1234567890123LL);
    root.appendAttribute("lat", 47.376887).appendAttribute("tiny", 1e-300);
    EXPECT_EQ(root.attribute("covertype"), "3");
    EXPECT_EQ(root.attribute("offset"), "0.1");
    EXPECT_EQ(root.attribute("big"), "-1234567890123");
    for (const char* name : {"lat", "tiny"}) {
        const std::string_view text = root.attribute(name);
        double back = 0;
        std::from_chars(text.data(), text.data() + text.size(), back);
        EXPECT_EQ(back, name[0] == 'l' ? 47.376887 : 1e-300) << name;
    }

    root.setAttribute("covertype", "4").setAttribute("theme", "classic");
    EXPECT_TRUE(root.removeAttribute("offset"));
    EXPECT_FALSE(root.removeAttribute("offset"));
    std::vector<std::string> names;
    for (XmlAttribute a : root.attributes()) names.emplace_back(a.name);
    EXPECT_EQ(names, (std::vector<std::string>{"covertype", "big", "lat", "tiny", "theme"}));
    EXPECT_EQ(root.attribute("covertype"), "4");

    NodeIterator text = root.appendChild("description");
    text.setText("old");
    text.setText("new");
    EXPECT_EQ(text.text(), "new");
    EXPECT_NE(doc.toString().find("<description>new</description>"), std::string::npos);
    text.setText("");
    EXPECT_EQ(text.text(), "");

    const NodeIterator page = root.appendChild("page");
    EXPECT_FALSE(page.firstChild().removeChild(page));  // not its child
    EXPECT_TRUE(root.removeChild(page));
    EXPECT_FALSE(root.child("page"));

    // Names that would not read back, and duplicate attributes, are refused with a line each,
    // and the document stays readable.
    {
        LogCapture log;
        for (const char* bad : {"", "two words", "1st", "a<b", "q\"", "-x"}) {
            EXPECT_FALSE(root.appendChild(bad)) << bad;
            root.appendAttribute(bad, "v");
        }
        root.appendAttribute("theme", "again");
        EXPECT_EQ(log.count("Invalid XML element name"), 6u);
        EXPECT_EQ(log.count("Invalid XML attribute name"), 6u);
        EXPECT_EQ(log.count("Duplicate XML attribute 'theme' on 'book'"), 1u);
        EXPECT_EQ(root.attribute("theme"), "classic");
        root.appendChild("tag:ok_1.x-y").appendAttribute("Zürich", "v").appendAttribute("_:", "w");
        XmlDocumentRapid back;
        ASSERT_TRUE(back.loadFromString(doc.toString()));
        EXPECT_EQ(back.root().child("tag:ok_1.x-y").attribute("Zürich"), "v");
        EXPECT_EQ(back.root().child("tag:ok_1.x-y").attribute("_:"), "w");
        EXPECT_FALSE(XmlDocumentRapid().create("no root"));
        EXPECT_EQ(log.count("Invalid XML element name 'no root'"), 1u);
    }

    // A null handle reads as empty and ignores writes.
    NodeIterator none;
    EXPECT_EQ(none.name(), "");
    EXPECT_EQ(none.attribute("x"), "");
    EXPECT_EQ(none.children().begin(), none.children().end());
    EXPECT_FALSE(none.appendChild("x"));
    EXPECT_FALSE(none.appendAttribute("a", "b").valid());

    // create() starts over.
    EXPECT_EQ(doc.create("bag").name(), "bag");
    EXPECT_FALSE(doc.root().firstChild());
}

TEST(XmlDocumentRapid, LoadFailuresReturnFalseWithOneLineSayingWhy) {
    TempDir dir(nullptr, "qor-xml");
    ASSERT_TRUE(dir.ok());
    writeText(dir / "empty.xml", "");
    writeText(dir / "blank.xml", "  \n\t\n");
    writeText(dir / "truncated.xml", "<library>\n  <bag name=\"a\">\n    <metadata/>\n  </ba");
    writeText(dir / "malformed.xml", "<library>\n<bag name=a/>\n</library>\n");
    writeText(dir / "mismatch.xml", "<a>\n<b>\n</a>\n");
    ::mkdir((dir / "folder.xml").c_str(), 0755);

    struct Case {
        std::string file;
        std::vector<std::string> words;  // what the one line must say
    };
    const std::vector<Case> cases = {
        {"missing.xml", {"does not exist"}},
        {"empty.xml", {"is empty"}},
        {"blank.xml", {"no root element"}},
        {"truncated.xml", {"malformed", "line 4"}},
        {"malformed.xml", {"malformed", "attribute", "line 2, column 11"}},
        {"mismatch.xml", {"malformed", "line 3"}},
        {"folder.xml", {"Cannot read", "Is a directory"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.file);
        XmlDocumentRapid doc;
        doc.create("stale");
        LogCapture log;
        EXPECT_FALSE(doc.load(dir / c.file, false));
        EXPECT_FALSE(doc.root()) << "a failed load leaves an empty document";
        const auto lines = log.entries();
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_EQ(lines[0].level, LogWarning);
        EXPECT_NE(lines[0].text.find(dir / c.file), std::string::npos) << lines[0].text;
        for (const std::string& word : c.words)
            EXPECT_NE(lines[0].text.find(word), std::string::npos) << lines[0].text;
    }

    // A missing index is the normal first start: the caller says so, the document says nothing.
    XmlDocumentRapid doc;
    LogCapture log;
    EXPECT_FALSE(doc.load(dir / "library.xml", true));
    EXPECT_TRUE(log.entries().empty());

    log.clear();
    EXPECT_FALSE(doc.loadFromString("<a><b></a>", "layout 'x'"));
    EXPECT_EQ(log.count("XML 'layout 'x'' is malformed"), 1u);

    // Every cut of a real document, and bytes that are no text at all: a clean answer each time,
    // and one line for each failure.
    const std::string whole = sampleDocument().toString();
    std::string noise;
    for (int i = 0; i < 4096; ++i) noise += static_cast<char>((i * 7919) % 251);
    for (size_t cut = 0; cut < whole.size() + noise.size(); cut += 3) {
        const std::string text = cut < whole.size()
                                     ? whole.substr(0, cut)
                                     : "<a x='" + noise.substr(0, cut - whole.size());
        log.clear();
        if (!doc.loadFromString(text)) {
            EXPECT_EQ(log.entries().size(), 1u) << cut;
        }
    }
}

TEST(XmlDocumentRapid, SaveFailureLeavesOldFileAndLogs) {
    TempDir dir(nullptr, "qor-xml");
    ASSERT_TRUE(dir.ok());
    XmlDocumentRapid doc = sampleDocument();
    LogCapture log;
    EXPECT_FALSE(doc.save(dir / "no/such/folder/library.xml"));
    EXPECT_EQ(log.count("Cannot save XML file"), 1u);
    EXPECT_EQ(log.count("No such file or directory"), 1u);

    // A document without a root would give a file that cannot be loaded again: the old file
    // stays. So does a moved-from document, which is empty.
    const std::string path = dir / "library.xml";
    ASSERT_TRUE(doc.save(path));
    XmlDocumentRapid moved = std::move(doc);
    EXPECT_EQ(moved.root().name(), "bag");
    log.clear();
    EXPECT_FALSE(XmlDocumentRapid().save(path));
    EXPECT_FALSE(doc.save(path));  // NOLINT(bugprone-use-after-move): defined as empty
    EXPECT_EQ(log.count("the document has no root element"), 2u);
    XmlDocumentRapid back;
    ASSERT_TRUE(back.load(path));
    EXPECT_EQ(dump(back), dump(moved));
    EXPECT_TRUE(doc.loadFromString("<x/>"));
}
