// Books: the book XML as a BookBag writes and reads it, the .layout templates with what only the
// reader accepts, forgiving and strict reading, the page list, and a book bag in a real library.

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "BagTestSupport.h"
#include "base/Log.h"
#include "base/xml/XmlDocument.h"
#include "mediadb/bags/CollectionBag.h"
#include "mediadb/books/Book.h"
#include "mediadb/books/BookBag.h"

namespace qor::mediadb {
namespace {

using testing::BagLibrary;

// Images without a library: "img:N" stands for the id N.
std::string idText(ResourceID id) { return "img:" + std::to_string(id.id()); }
ResourceID textId(std::string_view text) {
    return text.substr(0, 4) == "img:" ? ResourceID(std::stoi(std::string(text.substr(4))), nullptr)
                                       : InvalidResourceID;
}

std::string bookXml(const Book& book) {
    XmlDocumentRapid doc;
    NodeIterator layout = doc.create("layout");
    book.toXML(layout, idText);
    return doc.toString();
}

Book bookFrom(const std::string& xml) {
    XmlDocumentRapid doc;
    EXPECT_TRUE(doc.loadFromString(xml));
    Book book;
    book.fromXML(doc.root(), textId);
    return book;
}

// A double page whose sides have only a type and a background.
std::string plainPage(const char* element, const std::string& leftAttributes = "") {
    return std::string("<") + element + "><subpage type=\"0\" bgcolor=\"#fff\" " + leftAttributes +
           "/><subpage type=\"1\" bgcolor=\"#fff\"/></" + element + ">";
}

std::vector<std::string> childNames(const NodeIterator& node) {
    std::vector<std::string> names;
    for (NodeIterator child : node.children()) names.emplace_back(child.name());
    return names;
}

std::vector<std::string> attributeNames(const NodeIterator& node) {
    std::vector<std::string> names;
    for (XmlAttribute a : node.attributes()) names.emplace_back(a.name);
    return names;
}

Page pageWithFrames() {
    Page page;
    PictureFrame picture;
    picture.layer = 3;
    picture.image = ResourceID(7, nullptr);
    picture.position = {0.25, 0.5};
    picture.size = {0.5, 0.125};
    picture.pictureOffset = {-3.5, 2};
    picture.pictureSize = {640, 480};
    picture.pictureRotation = 90;
    picture.alpha = 0.75;
    picture.error = 2;
    TextFrame text;
    text.layer = 1;
    text.alignment = AlignRight | AlignBottom;
    text.text = "Sea & <sand>";
    text.textstyle = "caption";
    Decoration deco;
    deco.layer = 2;
    deco.decoimage = "star.png";
    deco.scalefactor = 1.5;
    page.left_page.pictures.push_back(picture);
    page.left_page.texts.push_back(text);
    page.left_page.decorations.push_back(deco);
    page.left_page.flippable = true;
    page.left_page.offset = 0.5;
    return page;
}

TEST(BookXml, FramesAreWrittenInLayerOrderAndReadBackTheSame) {
    Book book;
    book.setTheme("classic");
    book.setVariant("square");
    book.setCoverType(2);
    book.setCurrentViewState(3);
    Page cover;
    cover.right_page.bgimage = "front.png";
    book.setCover(cover);
    book.appendPage(pageWithFrames());
    book.appendPage(cover);
    book.setCurrentPage(1);
    const std::string xml = bookXml(book);

    XmlDocumentRapid doc;
    ASSERT_TRUE(doc.loadFromString(xml));
    EXPECT_EQ(attributeNames(doc.root()),
              (std::vector<std::string>{"theme", "variant", "covertype", "current_view",
                                        "current_page"}));
    EXPECT_EQ(childNames(doc.root()),
              (std::vector<std::string>{"cover", "insidefront", "insideback", "dustjacket", "page",
                                        "page"}));
    NodeIterator left = doc.root().child("page").firstChild();
    EXPECT_EQ(attributeNames(left), (std::vector<std::string>{"type", "name", "bgcolor", "bgimage",
                                                              "offset", "flippable"}));
    EXPECT_EQ(left.attribute("flippable"), "yes");
    // Layers 3 (picture), 1 (text), 2 (decoration): stacking order in the document.
    EXPECT_EQ(childNames(left),
              (std::vector<std::string>{"description", "decoration", "pictureframe"}));
    NodeIterator frame = left.child("pictureframe");
    EXPECT_EQ(attributeNames(frame),
              (std::vector<std::string>{"error", "layer", "bgcolor", "framestyle", "rotation",
                                        "position", "size"}));
    EXPECT_EQ(frame.child("picture").attribute("imageurl"), "img:7");
    EXPECT_EQ(left.child("description").attribute("alignment"), "Right,Bottom");

    // Everything read comes back, the covers left at their defaults included; written again, it
    // is the same document.
    LogCapture log;
    Book back = bookFrom(xml);
    EXPECT_EQ(log.count("error parsing"), 0u);
    EXPECT_EQ(bookXml(back), xml);
    EXPECT_EQ(back.currentPage(), 1u);
    ASSERT_EQ(back.pages().size(), 2u);
    EXPECT_EQ(back.page(0).left_page.pictures.at(0).image, ResourceID(7, nullptr));
    EXPECT_EQ(back.page(0).left_page.texts.at(0).text, "Sea & <sand>");
}

TEST(BookXml, LayoutTemplateUsesWhatOnlyTheReaderAccepts) {
    Book book;
    LogCapture log;
    // Every image text names a picture here, so only a skipped empty `imageurl` leaves a frame
    // without one.
    ASSERT_TRUE(loadLayoutFile(QOR_MEDIADB_DATA "/sample.layout", book,
                               [](std::string_view) { return ResourceID(1, nullptr); }));
    EXPECT_EQ(log.assertions(), 0u);
    EXPECT_EQ(book.theme(), "classic");  // from `style`
    EXPECT_EQ(book.variant(), "square");
    EXPECT_EQ(book.coverType(), 1);
    ASSERT_EQ(book.pages().size(), 2u);

    // bgimageR and bgcolorR replace the backgrounds of right pages only.
    EXPECT_EQ(book.cover().right_page.bgimage, "cover-front.png");
    EXPECT_EQ(book.page(0).left_page.bgcolor, "#f8f4ec");
    EXPECT_EQ(book.page(0).right_page.bgcolor, "#ece4d4");
    EXPECT_EQ(book.page(0).right_page.bgimage, "paper-right.png");
    // "true" reads as true and is written as "yes".
    EXPECT_TRUE(book.cover().right_page.flippable);
    XmlDocumentRapid doc;
    ASSERT_TRUE(doc.loadFromString(bookXml(book)));
    NodeIterator front = doc.root().child("cover").firstChild().nextSibling();
    EXPECT_EQ(front.attribute("flippable"), "yes");
    EXPECT_FALSE(front.hasAttribute("bgimageR"));

    // Empty values are skipped: an empty imageurl leaves no picture, an empty alpha the default.
    const PictureFrame& picture = book.page(0).right_page.pictures.at(0);
    EXPECT_FALSE(picture.image.isValid());
    EXPECT_EQ(picture.alpha, 1.0);
    EXPECT_EQ(picture.pictureRotation, 90);
    EXPECT_EQ(picture.pictureOffset, BookVec2d(-10, 5));
    EXPECT_EQ(book.page(0).left_page.pictures.at(0).rotation, -2.5);
    // One alignment word: the vertical one is "Top".
    EXPECT_EQ(book.page(0).left_page.texts.at(0).alignment, AlignLeft | AlignTop);
    EXPECT_EQ(book.cover().right_page.texts.at(0).alignment, AlignHCenter | AlignVCenter);
    EXPECT_EQ(book.getPictures().size(), 3u);

    EXPECT_FALSE(loadLayoutFile(QOR_MEDIADB_DATA "/missing.layout", book));
}

TEST(BookXml, BadValuesAreLoggedAndReadingGoesOn) {
    LogCapture log;
    Book book = bookFrom("<layout theme='t' covertype='paper' current_page='-1' current_view='x'>" +
                         plainPage("cover") +
                         "<page><subpage type='0' bgcolor='#fff'>"
                         "  <pictureframe layer='1' position='5' size='1,2,3' error='-4'>"
                         "    <picture size='10.6,3.4' alpha='lots'/></pictureframe>"
                         "  <description alignment='Left,Top,Center'>x</description>"
                         "  <table/>"
                         "</subpage><subpage type='1' bgcolor='#fff'/></page>"
                         "<chapter/>" +
                         plainPage("page") + "</layout>");

    EXPECT_EQ(log.count("error parsing a book: could not parse 'covertype'"), 1u);
    EXPECT_EQ(log.count("error parsing a book: could not parse 'current_page'"), 1u);
    EXPECT_EQ(log.count("error parsing a book: could not parse 'current_state'"), 1u);
    EXPECT_EQ(log.count("error parsing a book: unknown element 'chapter'"), 1u);
    EXPECT_EQ(log.count("The value '5' is not a valid vector; please check the XML files."), 1u);
    EXPECT_EQ(log.count("The value '1,2,3' is not a valid vector"), 1u);
    EXPECT_EQ(log.assertions(), 1u);  // the unknown `table` in a page
    EXPECT_EQ(book.theme(), "t");
    EXPECT_EQ(book.coverType(), 0);
    ASSERT_EQ(book.pages().size(), 2u);
    const PictureFrame& frame = book.page(0).left_page.pictures.at(0);
    EXPECT_EQ(frame.position, BookVec2d());
    EXPECT_EQ(frame.size, BookVec2d());
    EXPECT_EQ(frame.error, 0);
    EXPECT_EQ(frame.layer, 1);
    EXPECT_EQ(frame.pictureSize, BookVec2i(11, 3));
    EXPECT_EQ(frame.alpha, 1.0);
    EXPECT_EQ(book.page(0).left_page.texts.at(0).alignment, AlignLeft | AlignTop);
}

TEST(BookXml, PagesWithoutASideAreLeftOut) {
    const std::pair<const char*, const char*> cases[] = {
        {"<page><subpage type='1' bgcolor='#fff'/></page>",
         "no left page found. please check layout files."},
        {"<page><subpage type='0' bgcolor='#fff'/></page>",
         "no right page found. please check .layout files"},
    };
    for (const auto& [xml, message] : cases) {
        XmlDocumentRapid doc;
        ASSERT_TRUE(doc.loadFromString(xml));
        try {
            pageFromXML(doc.root(), textId);
            ADD_FAILURE() << "a page without a side was read: " << xml;
        } catch (const BookException& e) {
            EXPECT_STREQ(e.what(), message);
        }
    }

    // In a book, such a page is logged and left out; the sides without type or background are
    // logged too.
    LogCapture log;
    Book book = bookFrom("<layout>" + plainPage("page", "name='first'") +
                         "<page><subpage bgcolor='#fff'/><subpage type='1'/></page>" +
                         plainPage("page", "name='third'") + "</layout>");
    EXPECT_EQ(log.count("error parsing a book: no left page found. please check layout files."),
              1u);
    EXPECT_EQ(log.count("Could not parse a page type."), 1u);
    EXPECT_EQ(log.count("A book page without a background was parsed. Please check .layout "
                        "files."),
              1u);
    EXPECT_EQ(log.assertions(), 1u);
    ASSERT_EQ(book.pages().size(), 2u);
    EXPECT_EQ(book.page(1).left_page.name, "third");
}

TEST(BookModel, PageListAndQueries) {
    Book book;
    Page a = pageWithFrames(), b, c;
    b.left_page.name = "b";
    c.left_page.name = "c";
    book.appendPage(a);
    book.appendPage(c);
    book.insertPage(1, b);
    book.setCurrentPage(2);
    {
        LogCapture log;
        book.insertPage(4, b);
        book.removePage(3);
        book.setCurrentPage(3);
        EXPECT_TRUE(book.page(3).left_page.name.empty());
        EXPECT_EQ(log.assertions("position <= _pages.size()"), 1u);
        EXPECT_EQ(log.assertions("position < _pages.size()"), 1u);
        EXPECT_EQ(log.assertions("page < _pages.size()"), 1u);
        EXPECT_EQ(log.assertions("pageNr < _pages.size()"), 1u);
    }
    ASSERT_EQ(book.pages().size(), 3u);
    EXPECT_EQ(book.page(1).left_page.name, "b");
    EXPECT_EQ(book.lastPage().left_page.name, "c");
    // Removing the page shown keeps the current page within the book.
    book.removePage(2);
    EXPECT_EQ(book.currentPage(), 1u);

    EXPECT_TRUE(book.imageUsed(ResourceID(7, nullptr)));
    EXPECT_FALSE(book.imageUsed(ResourceID(8, nullptr)));
    Page errors;
    errors.right_page.decorations.emplace_back().error = 1;
    book.setDustJacket(errors);
    std::vector<ErrorListEntry> list = book.getErrorList();
    ASSERT_EQ(list.size(), 2u);
    EXPECT_EQ(list[0].kind, BpkDustJacket);
    EXPECT_EQ(list[0].side, RightPage);
    EXPECT_EQ(list[1].kind, BpkPage);
    EXPECT_EQ(list[1].pageNr, 0u);
    EXPECT_EQ(list[1].side, LeftPage);
    EXPECT_EQ(list[1].element, &book.page(0).left_page.pictures[0]);

    Book other;
    other.copy(book);
    EXPECT_EQ(bookXml(other), bookXml(book));
    book.removeAllPages();
    LogCapture log;
    book.lastPage();
    EXPECT_EQ(log.assertions("!_pages.empty()"), 1u);
}

// A book bag in a library: its file on disk, read again after a restart.
TEST(BookBagLibrary, ImagesAndPagesSurviveARestart) {
    BagLibrary f;
    ResourceID event = f.createBag("event", "Holiday");
    ResourceID shown = f.addPicture(event, "shown.jpg");
    ResourceID spare = f.addPicture(event, "spare.jpg");
    ResourceID edited = f.addPicture(event, "edited.jpg");
    ResourceID bookId = f.createBag("picturebook", "Album");
    f.modify<BookBag>(bookId, [&](BookBag& book) {
        Page page;
        page.right_page.pictures.emplace_back().image = shown;
        page.right_page.pictures.emplace_back();  // an empty frame
        book.appendPage(page);
        book.setTheme("classic");
        book.add({shown, spare});
    });
    // A picture replaced in the library (by its edited version, say) is replaced in the frames.
    f.lib().replaceImageInAssociativeBags(shown, edited);
    EXPECT_TRUE(f.bag<BookBag>(bookId)->imageUsed(edited));

    const std::string file = f.savedBagFile(bookId);
    EXPECT_EQ(file.substr(file.size() - 12), ".picturebook");
    XmlDocumentRapid doc;
    ASSERT_TRUE(doc.load(file));
    EXPECT_EQ(doc.root().attribute("type"), "picturebook");
    // Only the image that no frame shows is listed.
    std::vector<std::string> listed;
    for (NodeIterator image : doc.root().child("images").children())
        listed.push_back(filesystem::leaf(image.attribute("name")));
    EXPECT_EQ(listed, std::vector<std::string>{"spare.jpg"});

    LogCapture log;
    f.reopen();
    EXPECT_EQ(log.count("error parsing"), 0u);
    event = f.lib().bags("event").front();
    bookId = f.lib().bags("picturebook").front();
    shown = f.imageId(event, "shown.jpg");
    spare = f.imageId(event, "spare.jpg");
    edited = f.imageId(event, "edited.jpg");
    SharedPtr<const BookBag> book = f.bag<BookBag>(bookId);
    ASSERT_TRUE(book);
    EXPECT_EQ(book->name(), "Album");
    EXPECT_EQ(book->theme(), "classic");
    EXPECT_EQ(book->images(), (HashSet{edited, spare}));
    ASSERT_EQ(book->pages().size(), 1u);
    EXPECT_EQ(book->page(0).right_page.pictures.at(0).image, edited);
    EXPECT_FALSE(book->page(0).right_page.pictures.at(1).image.isValid());
    EXPECT_EQ(f.lib().associativeBags(spare), (HashSet{bookId}));
    EXPECT_EQ(f.lib().associativeBags(edited), (HashSet{bookId}));
    EXPECT_TRUE(f.lib().associativeBags(shown).empty());

    // A picture taken out of the book leaves its frame empty and stays out after a restart.
    f.lib().removeImagesFromAssociativeBags({edited});
    EXPECT_FALSE(f.bag<BookBag>(bookId)->imageUsed(edited));
    f.savedBagFile(bookId);
    f.reopen();
    book = f.bag<BookBag>(f.lib().bags("picturebook").front());
    ASSERT_TRUE(book);
    EXPECT_EQ(book->images().size(), 1u) << "only the spare picture";
    ASSERT_EQ(book->pages().size(), 1u);
    EXPECT_FALSE(book->page(0).right_page.pictures.at(0).image.isValid());
}

}  // namespace
}  // namespace qor::mediadb
