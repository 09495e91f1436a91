#include "base/xml/XmlDocument.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <pugixml.hpp>
#include <system_error>

#include "base/Log.h"
#include "base/filesystem/AtomicFileWriter.h"
#include "base/filesystem/Path.h"
#include "base/filesystem/PosixIO.h"

namespace qor {

namespace {

using pugi::xml_attribute;
using pugi::xml_node;

// Whitespace between elements is layout and is dropped; an element whose only child is
// whitespace text keeps it, so that a text value of blanks round-trips. Line ends are not
// normalised: pugixml writes a carriage return in text as it is, and it must read back as written.
constexpr unsigned kParseOptions =
    (pugi::parse_default & ~pugi::parse_eol) | pugi::parse_ws_pcdata_single;

// A name that the parser reads back as written: it begins with a letter, '_', ':' or a byte of a
// multi-byte UTF-8 character and goes on with those, digits, '-' and '.'. pugixml writes any name
// unchecked, and one bad name would make the whole file unreadable.
bool isReadableName(std::string_view name) {
    auto start = [](unsigned char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' || c == ':' ||
               c >= 0x80;
    };
    if (name.empty() || !start(static_cast<unsigned char>(name[0]))) return false;
    return std::all_of(name.begin() + 1, name.end(), [&](char ch) {
        const auto c = static_cast<unsigned char>(ch);
        return start(c) || (c >= '0' && c <= '9') || c == '-' || c == '.';
    });
}

// Logs the refusal of a name that could not be read back.
bool checkName(std::string_view name, const char* kind) {
    if (isReadableName(name)) return true;
    QOR_LOG(LogError, "Invalid XML %* name '%*': not written", kind, name);
    return false;
}

bool isElement(const xml_node& node) { return node.type() == pugi::node_element; }

// The first element at or after `node` among its siblings, with that name unless `name` is empty.
xml_node elementFrom(xml_node node, std::string_view name) {
    for (; node; node = node.next_sibling()) {
        if (isElement(node) && (name.empty() || name == node.name())) return node;
    }
    return {};
}

xml_attribute findAttribute(const xml_node& node, std::string_view name) {
    for (xml_attribute a = node.first_attribute(); a; a = a.next_attribute()) {
        if (name == a.name()) return a;
    }
    return {};
}

unsigned pugiFormat(unsigned format) {
    unsigned flags = (format & XmlIndent) ? pugi::format_indent : pugi::format_raw;
    if (format & XmlNoDeclaration) flags |= pugi::format_no_declaration;
    return flags;
}

struct StringWriter : pugi::xml_writer {
    std::string out;
    void write(const void* data, size_t size) override {
        out.append(static_cast<const char*>(data), size);
    }
};

// Hands pugixml's output to the atomic writer. pugixml is not written for exceptions from its
// writer, so the first failure is kept and later output dropped.
struct FileWriter : pugi::xml_writer {
    explicit FileWriter(filesystem::AtomicFileWriter& file) : file(file) {}
    void write(const void* data, size_t size) override {
        if (!error.empty()) return;
        try {
            file.write(data, size);
        } catch (const std::exception& e) {
            error = e.what();
        }
    }
    filesystem::AtomicFileWriter& file;
    std::string error;
};

// Reads a whole file. Returns 0 or an errno value.
int readWholeFile(const std::string& path, std::string& out) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return errno;
    struct stat st {};
    int error = 0;
    if (::fstat(fd, &st) != 0) {
        error = errno;
    } else if (S_ISDIR(st.st_mode)) {
        error = EISDIR;
    } else {
        out.resize(static_cast<size_t>(st.st_size));
        const ssize_t got = filesystem::preadFull(fd, out.data(), out.size(), 0);
        if (got < 0)
            error = errno;
        else
            out.resize(static_cast<size_t>(got));
    }
    ::close(fd);
    return error;
}

}  // namespace

// --- Ranges ---

template <>
NodeIterator XmlChildIterator::operator*() const {
    return NodeIterator(_at);
}

template <>
XmlChildIterator& XmlChildIterator::operator++() {
    _at = elementFrom(xml_node(_at).next_sibling(), _name).internal_object();
    return *this;
}

XmlChildRange::iterator XmlChildRange::begin() const {
    return iterator(elementFrom(xml_node(_parent).first_child(), _name).internal_object(), _name);
}

template <>
XmlAttribute XmlAttributeIterator::operator*() const {
    const xml_attribute a(_at);
    return {a.name(), a.value()};
}

template <>
XmlAttributeIterator& XmlAttributeIterator::operator++() {
    _at = xml_attribute(_at).next_attribute().internal_object();
    return *this;
}

XmlAttributeRange::iterator XmlAttributeRange::begin() const {
    return iterator(xml_node(_node).first_attribute().internal_object());
}

// --- NodeIterator ---

std::string_view NodeIterator::name() const { return xml_node(_node).name(); }

std::string_view NodeIterator::attribute(std::string_view name) const {
    return findAttribute(xml_node(_node), name).value();
}

bool NodeIterator::hasAttribute(std::string_view name) const {
    return static_cast<bool>(findAttribute(xml_node(_node), name));
}

std::string_view NodeIterator::text() const { return xml_node(_node).text().get(); }

NodeIterator NodeIterator::firstChild() const {
    return NodeIterator(elementFrom(xml_node(_node).first_child(), {}).internal_object());
}

NodeIterator NodeIterator::child(std::string_view name) const {
    return NodeIterator(elementFrom(xml_node(_node).first_child(), name).internal_object());
}

NodeIterator NodeIterator::nextSibling() const {
    return NodeIterator(elementFrom(xml_node(_node).next_sibling(), {}).internal_object());
}

NodeIterator NodeIterator::nextSibling(std::string_view name) const {
    return NodeIterator(elementFrom(xml_node(_node).next_sibling(), name).internal_object());
}

NodeIterator NodeIterator::parent() const {
    const xml_node up = xml_node(_node).parent();
    return NodeIterator(isElement(up) ? up.internal_object() : nullptr);
}

NodeIterator& NodeIterator::appendAttribute(std::string_view name, std::string_view value) {
    if (!_node || !checkName(name, "attribute")) return *this;
    if (findAttribute(xml_node(_node), name)) {
        QOR_LOG(LogError, "Duplicate XML attribute '%*' on '%*': not written", name, this->name());
        return *this;
    }
    xml_attribute a = xml_node(_node).append_attribute(std::string(name).c_str());
    a.set_value(value.data(), value.size());
    return *this;
}

NodeIterator& NodeIterator::appendAttribute(std::string_view name, double value) {
    char buffer[64];
    const auto [end, ec] = std::to_chars(buffer, buffer + sizeof buffer, value);
    return appendAttribute(name, std::string_view(buffer, ec == std::errc() ? end - buffer : 0));
}

NodeIterator& NodeIterator::setAttribute(std::string_view name, std::string_view value) {
    if (xml_attribute a = findAttribute(xml_node(_node), name))
        a.set_value(value.data(), value.size());
    else
        appendAttribute(name, value);
    return *this;
}

bool NodeIterator::removeAttribute(std::string_view name) {
    const xml_attribute a = findAttribute(xml_node(_node), name);
    return a && xml_node(_node).remove_attribute(a);
}

NodeIterator& NodeIterator::setText(std::string_view text) {
    if (!_node) return *this;
    xml_node node(_node);
    for (xml_node c = node.first_child(); c;) {
        const xml_node next = c.next_sibling();
        if (c.type() == pugi::node_pcdata || c.type() == pugi::node_cdata) node.remove_child(c);
        c = next;
    }
    if (!text.empty()) node.append_child(pugi::node_pcdata).set_value(text.data(), text.size());
    return *this;
}

NodeIterator NodeIterator::appendChild(std::string_view name) {
    if (!_node || !checkName(name, "element")) return {};
    return NodeIterator(xml_node(_node).append_child(std::string(name).c_str()).internal_object());
}

bool NodeIterator::removeChild(const NodeIterator& child) {
    if (!_node || !child._node || xml_node(child._node).parent() != xml_node(_node)) return false;
    return xml_node(_node).remove_child(xml_node(child._node));
}

// --- XmlDocumentRapid ---

XmlDocumentRapid::XmlDocumentRapid() : _doc(std::make_unique<pugi::xml_document>()) {}
XmlDocumentRapid::~XmlDocumentRapid() = default;
XmlDocumentRapid::XmlDocumentRapid(XmlDocumentRapid&&) noexcept = default;
XmlDocumentRapid& XmlDocumentRapid::operator=(XmlDocumentRapid&&) noexcept = default;

bool XmlDocumentRapid::load(std::string_view path, bool missingIsNormal) {
    if (!_doc) _doc = std::make_unique<pugi::xml_document>();
    _doc->reset();
    const std::string file(path);
    std::string contents;
    if (const int error = readWholeFile(file, contents)) {
        if (error == ENOENT) {
            if (!missingIsNormal) QOR_LOG(LogWarning, "XML file '%*' does not exist", file);
        } else {
            QOR_LOG(LogWarning, "Cannot read XML file '%*': %*", file,
                    std::system_category().message(error));
        }
        return false;
    }
    return parsed(contents, file, true);
}

bool XmlDocumentRapid::loadFromString(std::string_view xml, std::string_view origin) {
    if (!_doc) _doc = std::make_unique<pugi::xml_document>();
    _doc->reset();
    return parsed(xml, origin, false);
}

bool XmlDocumentRapid::parsed(std::string_view buffer, std::string_view origin, bool isFile) {
    const char* what = isFile ? "XML file" : "XML";
    if (buffer.empty()) {
        QOR_LOG(LogWarning, "%* '%*' is empty", what, origin);
        return false;
    }
    const pugi::xml_parse_result result =
        _doc->load_buffer(buffer.data(), buffer.size(), kParseOptions, pugi::encoding_auto);
    // pugixml reports a document without any element (blanks, comments only) as an error of its
    // own.
    if (result.status == pugi::status_no_document_element) {
        QOR_LOG(LogWarning, "%* '%*' has no root element", what, origin);
        _doc->reset();
        return false;
    }
    if (!result) {
        // The offset is in the buffer as read; line and column count from 1.
        const size_t offset = std::min(
            static_cast<size_t>(std::max<std::ptrdiff_t>(result.offset, 0)), buffer.size());
        const std::string_view before = buffer.substr(0, offset);
        const size_t line = 1 + std::count(before.begin(), before.end(), '\n');
        const size_t lineStart = before.rfind('\n');
        const size_t column =
            offset - (lineStart == std::string_view::npos ? 0 : lineStart + 1) + 1;
        QOR_LOG(LogWarning, "%* '%*' is malformed: %* at byte %* (line %*, column %*)", what,
                origin, result.description(), offset, line, column);
        _doc->reset();
        return false;
    }
    return true;
}

NodeIterator XmlDocumentRapid::create(std::string_view rootName) {
    if (!_doc) _doc = std::make_unique<pugi::xml_document>();
    _doc->reset();
    if (!checkName(rootName, "element")) return {};
    return NodeIterator(_doc->append_child(std::string(rootName).c_str()).internal_object());
}

NodeIterator XmlDocumentRapid::root() const {
    return _doc ? NodeIterator(_doc->document_element().internal_object()) : NodeIterator();
}

bool XmlDocumentRapid::save(std::string_view path, unsigned format, unsigned save) const {
    // Such a file could not be loaded again; the old one is worth more.
    if (!root()) {
        QOR_LOG(LogError, "Cannot save XML file '%*': the document has no root element", path);
        return false;
    }
    try {
        filesystem::AtomicFileWriter file(path, (save & XmlDurable) != 0);
        FileWriter writer(file);
        _doc->save(writer, "\t", pugiFormat(format), pugi::encoding_utf8);
        if (!writer.error.empty()) throw filesystem::FilesystemException(writer.error);
        file.commit();
        return true;
    } catch (const std::exception& e) {
        QOR_LOG(LogError, "Cannot save XML file '%*': %*", path, e.what());
        return false;
    }
}

std::string XmlDocumentRapid::toString(unsigned format) const {
    StringWriter writer;
    if (_doc) _doc->save(writer, "\t", pugiFormat(format), pugi::encoding_utf8);
    return std::move(writer.out);
}

}  // namespace qor
