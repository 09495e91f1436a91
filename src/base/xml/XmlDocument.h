#pragma once
// XML documents of the files the library owns (library.xml, .bag files, book layouts), on pugixml.
//
// XmlDocumentRapid owns a document tree; NodeIterator is a small handle to one element of it,
// passed by value or reference to the code that reads or writes a part of the tree. Text is UTF-8
// throughout: element names, attribute names and values, element text. Attribute values and
// text round-trip whatever they hold (quotes, '<', '&', control characters, any Unicode text)
// except the NUL character, which ends a value.
//
// Reading:
//     XmlDocumentRapid doc;
//     if (!doc.load(path, true)) return;              // logged already
//     NodeIterator root = doc.root();
//     if (!root || root.name() != "library") ...
//     for (NodeIterator bag : root.children("bag")) {
//         std::string_view name = bag.attribute("name");  // "" when missing
//         for (XmlAttribute a : bag.firstChild().attributes()) use(a.name, a.value);
//     }
// Writing:
//     XmlDocumentRapid doc;
//     NodeIterator bag = doc.create("bag");
//     bag.appendAttribute("name", name).appendAttribute("type", type);
//     bag.appendChild("metadata");
//     if (!doc.save(path, XmlIndent, XmlDurable)) ...  // logged already
//
// Lifetime: handles and the string_views they return point into the document. They stay valid
// while the document lives and the element is not removed; a string_view of a value also ends
// when that value is set again. load(), loadFromString() and create() replace the whole tree and
// end every handle.
//
// Thread contract: a document and its handles are used by one thread at a time (concurrent reads
// of an unchanged document are safe). Distinct documents are independent.

#include <concepts>
#include <cstddef>
#include <iterator>
#include <memory>
#include <string>
#include <string_view>

namespace pugi {
class xml_document;
struct xml_node_struct;
struct xml_attribute_struct;
}  // namespace pugi

namespace qor {

// Flags of XmlDocumentRapid::save and toString: the layout of the text.
enum XmlFormatFlags : unsigned {
    XmlCompact = 0,        // everything on one line
    XmlIndent = 1,         // one element a line, indented by a tab a level
    XmlNoDeclaration = 2,  // leave out <?xml version="1.0" encoding="UTF-8"?>
};

// Flags of XmlDocumentRapid::save: how the file is replaced. The file is always replaced
// atomically (filesystem/AtomicFileWriter.h): a crash leaves the old or the new file, never a
// partial one.
enum XmlSaveFlags : unsigned {
    XmlAtomic = 0,   // atomic against a crash of the process
    XmlDurable = 1,  // also flushed to the disk (fsync) before save returns: survives power loss
};

// One attribute: name and value, valid as the handles are (see above).
struct XmlAttribute {
    std::string_view name;
    std::string_view value;
};

class NodeIterator;

// A forward iterator over a chain of pugixml nodes (giving NodeIterator) or attributes (giving
// XmlAttribute). A child iterator with a name visits only the elements of that name.
template <class Struct, class Value>
class XmlIterator {
public:
    using iterator_category = std::forward_iterator_tag;
    using value_type = Value;
    using difference_type = std::ptrdiff_t;
    using pointer = void;
    using reference = Value;

    XmlIterator() = default;
    Value operator*() const;
    XmlIterator& operator++();
    XmlIterator operator++(int) {
        XmlIterator old = *this;
        ++*this;
        return old;
    }
    friend bool operator==(const XmlIterator& a, const XmlIterator& b) { return a._at == b._at; }

private:
    friend class XmlChildRange;
    friend class XmlAttributeRange;
    explicit XmlIterator(Struct* at, std::string_view name = {}) : _at(at), _name(name) {}
    Struct* _at = nullptr;
    std::string_view _name;  // children only; empty: every element
};

using XmlChildIterator = XmlIterator<pugi::xml_node_struct, NodeIterator>;
using XmlAttributeIterator = XmlIterator<pugi::xml_attribute_struct, XmlAttribute>;
template <>
NodeIterator XmlChildIterator::operator*() const;
template <>
XmlChildIterator& XmlChildIterator::operator++();
template <>
XmlAttribute XmlAttributeIterator::operator*() const;
template <>
XmlAttributeIterator& XmlAttributeIterator::operator++();

// The element children of a node, in document order, optionally only those of one name. Text,
// comments and processing instructions are skipped.
class XmlChildRange {
public:
    using iterator = XmlChildIterator;
    iterator begin() const;
    iterator end() const { return {}; }

private:
    friend class NodeIterator;
    XmlChildRange(pugi::xml_node_struct* parent, std::string_view name)
        : _parent(parent), _name(name) {}
    pugi::xml_node_struct* _parent;
    std::string_view _name;
};

// The attributes of an element, in document order.
class XmlAttributeRange {
public:
    using iterator = XmlAttributeIterator;
    iterator begin() const;
    iterator end() const { return {}; }

private:
    friend class NodeIterator;
    explicit XmlAttributeRange(pugi::xml_node_struct* node) : _node(node) {}
    pugi::xml_node_struct* _node;
};

// A handle to one element of an XmlDocumentRapid, or a null handle. Copying copies the handle, not
// the element. Every read of a null handle gives an empty result (empty name, empty attributes,
// no children); every write to a null handle does nothing and gives a null handle, so a chain of
// calls needs one check at its end. Two handles compare equal when they name the same element.
class NodeIterator {
public:
    NodeIterator() = default;

    bool valid() const { return _node != nullptr; }
    explicit operator bool() const { return valid(); }
    friend bool operator==(const NodeIterator& a, const NodeIterator& b) {
        return a._node == b._node;
    }

    // --- Reading ---
    // The element's name.
    std::string_view name() const;
    // The value of the attribute `name`, empty when it is missing.
    std::string_view attribute(std::string_view name) const;
    bool hasAttribute(std::string_view name) const;
    // All attributes in document order: for (XmlAttribute a : node.attributes()) ...
    XmlAttributeRange attributes() const { return XmlAttributeRange(_node); }
    // The element's text: its first text (or CDATA) child, empty when there is none.
    std::string_view text() const;

    // The element children in document order, all or those called `name`. The range keeps a view
    // of `name`, which must outlive the loop.
    XmlChildRange children() const { return XmlChildRange(_node, {}); }
    XmlChildRange children(std::string_view name) const { return XmlChildRange(_node, name); }
    // The first element child (of that name); null when there is none.
    NodeIterator firstChild() const;
    NodeIterator child(std::string_view name) const;
    // The next element sibling (of that name) and the parent element; null at the end and at the
    // root.
    NodeIterator nextSibling() const;
    NodeIterator nextSibling(std::string_view name) const;
    NodeIterator parent() const;

    // --- Writing ---
    // Names must read back as written: a letter, '_', ':' or a non-ASCII UTF-8 character first,
    // then those, digits, '-' and '.'. Another name (empty, with a blank, '<', '"' ...) is not
    // written and logs one error line, so that one bad key never makes a whole file unreadable.
    // Appends an attribute after the existing ones. Returns *this, so that calls chain. A name
    // that the node has already is not written again (that would not be XML) and logs one error
    // line; setAttribute() changes a value.
    NodeIterator& appendAttribute(std::string_view name, std::string_view value);
    NodeIterator& appendAttribute(std::string_view name, const char* value) {
        return appendAttribute(name, std::string_view(value ? value : ""));
    }
    NodeIterator& appendAttribute(std::string_view name, const std::string& value) {
        return appendAttribute(name, std::string_view(value));
    }
    // Integers in decimal.
    template <std::integral T>
    requires(!std::same_as<T, bool> &&
             !std::same_as<T, char>) NodeIterator& appendAttribute(std::string_view name, T value) {
        return appendAttribute(name, std::string_view(std::to_string(value)));
    }
    // The shortest decimal text that reads back as the same double ("0.1", "1e+300").
    NodeIterator& appendAttribute(std::string_view name, double value);
    // Sets the attribute `name`, appending it when it is missing. Returns *this.
    NodeIterator& setAttribute(std::string_view name, std::string_view value);
    // Removes the attribute; false when it was not there.
    bool removeAttribute(std::string_view name);
    // Replaces the element's text children by one text child (none for an empty text).
    NodeIterator& setText(std::string_view text);

    // Appends an element child after the existing children and returns it.
    NodeIterator appendChild(std::string_view name);
    // Removes an element child with its subtree; false when `child` is not a child of this node.
    // Handles into the removed subtree end.
    bool removeChild(const NodeIterator& child);

private:
    friend class XmlDocumentRapid;
    friend class XmlChildRange;
    friend XmlChildIterator;
    explicit NodeIterator(pugi::xml_node_struct* node) : _node(node) {}

    pugi::xml_node_struct* _node = nullptr;
};

// An XML document in memory with its file operations. Owns the tree; see the file comment for
// the lifetime of handles and the thread contract. Loading never throws: it returns false and
// logs one line. Saving never throws either: false and one line.
class XmlDocumentRapid {
public:
    XmlDocumentRapid();
    ~XmlDocumentRapid();
    XmlDocumentRapid(XmlDocumentRapid&&) noexcept;
    XmlDocumentRapid& operator=(XmlDocumentRapid&&) noexcept;
    XmlDocumentRapid(const XmlDocumentRapid&) = delete;
    XmlDocumentRapid& operator=(const XmlDocumentRapid&) = delete;

    // Reads the file at `path` (UTF-8, or UTF-16/32 with a byte order mark, converted to UTF-8).
    // False, with one log line that names the path and the reason, when the file is missing,
    // unreadable, empty, malformed (with the parser's message, the byte offset, line and column)
    // or has no root element; the document is then empty. With `missingIsNormal` a missing file is
    // not logged at all (the caller says what it means, as on the first start of a library);
    // otherwise every failure is a warning. Blocks on the file.
    bool load(std::string_view path, bool missingIsNormal = false);
    // Parses `xml` as load() parses a file; `origin` names it in the log line.
    bool loadFromString(std::string_view xml, std::string_view origin = "string");

    // Replaces the document by one holding only a root element called `rootName`; returns it
    // (null, with an empty document, when the name is not a valid element name).
    NodeIterator create(std::string_view rootName);
    // The root element, null when the document has none (empty, or load failed).
    NodeIterator root() const;

    // Writes the document to `path` in UTF-8 through an AtomicFileWriter, so that the old file
    // stays whole until the new one is complete. `format` is a set of XmlFormatFlags, `save` of
    // XmlSaveFlags. False, with one log line naming the path and the system's reason, on any
    // failure (missing or read-only folder, disk full); the old file is then untouched and no
    // temporary is left behind. A document without a root element is not saved (false and a
    // line): it could not be loaded again. The library's own files are saved with the defaults,
    // XmlIndent and XmlDurable (save(path, 1, 1)). Blocks on the file, fsync included.
    bool save(std::string_view path, unsigned format = XmlIndent, unsigned save = XmlDurable) const;
    // The document as text, UTF-8, laid out as `format` says.
    std::string toString(unsigned format = XmlIndent) const;

private:
    bool parsed(std::string_view buffer, std::string_view origin, bool isFile);

    std::unique_ptr<pugi::xml_document> _doc;
};

}  // namespace qor
