#pragma once
// The bag types of the library, registered in one call: what the tool and the tests use before
// Library::load. Types whose names the user picks in lists (collections, smart collections) want
// unique names, and so do photo books; events and import views do not (a second "Trip" event gets
// the folder "Trip_1").

namespace qor::mediadb {

class Library;

// Registers "event", "import", "collection", "allimages", "starcollection" and "picturebook". Call
// once per library, before load; a second call asserts (the types are registered already).
void registerStandardBagTypes(Library& library);

}  // namespace qor::mediadb
