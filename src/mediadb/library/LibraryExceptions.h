#pragma once
// Failures of the media library. The application matches the text of a LibraryException
// ("qor::LibraryException", "qor::LibraryException::UniqueNameException",
// "qor::LibraryException::AlienFilesInTheLibraryBag" or one of Library's messages), so the texts
// thrown by Library are part of its interface. All are cloneable (base/Exception.h).

#include "base/Exception.h"

namespace qor::mediadb {

// A library operation on bags or images failed; the message says which.
class LibraryException : public CloneableException<LibraryException> {
public:
    using CloneableException::CloneableException;
};

// A bag folder to be erased holds files that the bag does not know.
class AliensInLibraryException
    : public CloneableException<AliensInLibraryException, LibraryException> {
public:
    using CloneableException::CloneableException;
};

// A bag type that wants unique names already has a bag of that name (compared upper-cased).
class UniqueNameException : public CloneableException<UniqueNameException, LibraryException> {
public:
    using CloneableException::CloneableException;
};

// An ILibraryCacheConnector could not answer or carry out a request.
class CacheConnectorException : public CloneableException<CacheConnectorException> {
public:
    using CloneableException::CloneableException;
};

}  // namespace qor::mediadb
