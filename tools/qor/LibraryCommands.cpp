// The library commands, on a photo library folder (library.xml, the bags' folders and files, and
// the metadata cache in .cache/):
//   qor library init               makes an empty library
//   qor ls [BAG] [--json]          the bags, or one bag's images in node order with families
//   qor bag create TYPE NAME | rename BAG NEWNAME | rm BAG | erase BAG | add BAG FILE... |
//           move BAG IMAGE...      changes bags and their images
//   qor stars N [--json]           the pictures rated N stars
// Every command takes --library DIR (default: $QOR_LIBRARY). A bag is named by its name.
//
// Each command opens the library, loads it (every bag's file), does its work and shuts the library
// down, which writes what changed (the changed bags' files and library.xml, crash-safe).

#include <algorithm>
#include <cstdio>
#include <exception>
#include <list>
#include <string>
#include <vector>

#include "Commands.h"
#include "ItemText.h"
#include "LibrarySession.h"
#include "base/Log.h"
#include "base/filesystem/Path.h"
#include "mediadb/bags/AssociativeBag.h"
#include "mediadb/bags/ContainerBag.h"
#include "mediadb/bags/StarCollectionBag.h"
#include "mediadb/library/Library.h"
#include "mediadb/library/LibraryExceptions.h"

namespace qor::tool {

namespace {

using mediadb::Bag;
using mediadb::Library;

// Fills `o` from the arguments; returns the exit status of a usage error, or 0.
int parseLibraryOptions(const std::string& command, const std::vector<std::string>& args,
                        LibraryOptions& o) {
    o.command = command;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        if (arg == "--library") {
            if (i + 1 >= args.size()) return usageError(command + ": --library needs a folder");
            o.dir = args[++i];
        } else if (arg == "--json") {
            o.json = true;
        } else {
            o.args.push_back(arg);
        }
    }
    return resolveLibraryDir(o);
}

// ---- ls ----

size_t imageCount(const Bag& bag) { return bag.images().size(); }

int listBags(const LibraryOptions& o, Session& s) {
    Json array = Json::array();
    std::vector<SharedPtr<const Bag>> bags;
    for (ResourceID id : s.library->bags())
        if (SharedPtr<const Bag> bag = s.library->bag(id); bag && bag->persistent())
            bags.push_back(bag);
    std::sort(bags.begin(), bags.end(), [](const auto& a, const auto& b) {
        return a->name() != b->name() ? a->name() < b->name()
                                      : a->getResourceName().persistentString() <
                                            b->getResourceName().persistentString();
    });
    for (const auto& bag : bags) {
        const std::string state = s.library->bagStateString(bag->id());
        const std::string place = bag->getResourceName().persistentString();
        if (o.json)
            array.push_back({{"name", bag->name()},
                             {"type", bag->bagType()},
                             {"state", state},
                             {"images", imageCount(*bag)},
                             {"place", place}});
        else
            std::printf("%-24s %-12s %-8s %6zu  %s\n", bag->name().c_str(), bag->bagType().c_str(),
                        state.c_str(), imageCount(*bag), place.c_str());
    }
    if (o.json) std::printf("%s\n", array.dump(2).c_str());
    return 0;
}

// The images of a bag in node order; the items of a family group are indented below "family:".
void listNode(const Session& s, const Bag::Node& node, int depth, Json& array, bool json) {
    for (const Bag::Node& child : node.children()) {
        if (child.isGroup()) {
            if (!json) std::printf("%*s%s:\n", depth * 2, "", child.groupType().c_str());
            listNode(s, child, depth + 1, array, json);
            continue;
        }
        const std::string path = s.library->getImageResourceName(child.item()).localPath();
        const std::string role = child.tag("family");
        if (json) {
            Json tags = Json::object();
            for (const auto& [key, value] : child.tags()) tags[key] = value;
            array.push_back({{"file", path}, {"family", role}, {"tags", tags}});
        } else {
            std::printf("%*s%s%s%s\n", depth * 2, "", path.c_str(), role.empty() ? "" : "  ",
                        role.c_str());
        }
    }
}

int listBag(const LibraryOptions& o, Session& s, const std::string& name) {
    const SharedPtr<const Bag> bag = s.findBag(o, name);
    if (!bag) return 1;
    Json array = Json::array();
    listNode(s, *bag->rootNode(), 0, array, o.json);
    if (o.json) std::printf("%s\n", array.dump(2).c_str());
    return 0;
}

// ---- bag ----

// The library's image at `path`; invalid when the library has none there.
ResourceID imageAt(const Session& s, const std::string& path) {
    return s.library->getImageId(absolute(path));
}

int addToBag(const LibraryOptions& o, Session& s, const SharedPtr<const Bag>& bag,
             const std::vector<std::string>& files) {
    int status = 0;
    if (dynamic_cast<const mediadb::ContainerBag*>(bag.get())) {
        for (const std::string& file : files) {
            if (const std::string why = unreadable(file); !why.empty()) {
                status = reportBad(o.command.c_str(), file, why);
                continue;
            }
            try {
                const ResourceID id = s.library->copyImage(absolute(file), bag->id(), "", "", true);
                if (!id.isValid()) status = failure(o, "'" + bag->name() + "' is broken");
            } catch (const std::exception& e) {
                status = reportBad(o.command.c_str(), file, e.what());
            }
        }
        return status;
    }
    if (!dynamic_cast<const mediadb::AssociativeBag*>(bag.get()))
        return failure(
            o, "'" + bag->name() + "' is a " + bag->bagType() + " bag, which computes its images");
    std::list<ResourceID> ids;
    for (const std::string& file : files) {
        const ResourceID id = imageAt(s, file);
        if (id.isValid())
            ids.push_back(id);
        else
            status = reportBad(o.command.c_str(), file, "not an image of the library");
    }
    if (!ids.empty()) {
        const SharedPtr<Bag> copy = s.library->modifyLockBag(bag->id());
        if (auto* associative = dynamic_cast<mediadb::AssociativeBag*>(copy.get()))
            associative->add(ids);
    }
    return status;
}

int moveIntoBag(const LibraryOptions& o, Session& s, const SharedPtr<const Bag>& bag,
                const std::vector<std::string>& files) {
    if (!dynamic_cast<const mediadb::ContainerBag*>(bag.get()))
        return failure(o, "'" + bag->name() + "' holds no files (move goes into an event)");
    int status = 0;
    std::vector<ResourceID> ids;
    for (const std::string& file : files) {
        const ResourceID id = imageAt(s, file);
        if (!id.isValid() || !s.library->containerId(id).isValid())
            status = reportBad(o.command.c_str(), file, "not an image of a bag of the library");
        else if (s.library->containerId(id) == bag->id())
            status = reportBad(o.command.c_str(), file, "lies in '" + bag->name() + "' already");
        else
            ids.push_back(id);
    }
    if (ids.empty()) return status;
    const LogCapture log(false);
    s.library->moveImages(ids, bag->id());
    for (ResourceID id : ids)
        if (s.library->containerId(id) != bag->id())
            status = reportBad(o.command.c_str(), s.library->getImageResourceName(id).localPath(),
                               lastProblem(log, "not moved"));
    return status;
}

int runBagAction(const LibraryOptions& o, Session& s) {
    const std::string& action = o.args[0];
    const std::vector<std::string> rest(o.args.begin() + 1, o.args.end());
    if (action == "create") {
        try {
            const ResourceID id = s.library->createBag(rest[0], rest[1]);
            std::printf("%s\n", s.library->getBagResourceName(id).localPath().c_str());
            return 0;
        } catch (const mediadb::UniqueNameException& e) {
            return failure(o, std::string(e.what()) + " (a " + rest[0] + " named '" + rest[1] +
                                  "' in any capitals exists already)");
        } catch (const std::exception& e) {
            return failure(o, e.what());
        }
    }
    const SharedPtr<const Bag> bag = s.findBag(o, rest[0]);
    if (!bag) return 1;
    const std::vector<std::string> files(rest.begin() + 1, rest.end());
    try {
        if (action == "rename") {
            const LogCapture log(false);
            if (!s.library->renameBag(bag->id(), rest[1]))
                return failure(o, lastProblem(log, "Couldn't move bag"));
            return 0;
        }
        if (action == "rm") {
            s.library->removeBag(bag->id());
            return 0;
        }
        if (action == "erase") {
            const LogCapture log(false);
            try {
                s.library->eraseBag(bag->id(), true);
            } catch (const mediadb::AliensInLibraryException& e) {
                // The log names the file that is no picture of the bag.
                return failure(o, std::string(e.what()) + " (" +
                                      lastProblem(log, "a file that is no picture") + ")");
            }
            return 0;
        }
        if (action == "add") return addToBag(o, s, bag, files);
        return moveIntoBag(o, s, bag, files);
    } catch (const std::exception& e) {
        return failure(o, e.what());
    }
}

// The number of arguments after the action, at least and at most (-1: any).
struct BagAction {
    const char* name;
    int least, most;
    const char* synopsis;
};
constexpr BagAction kBagActions[] = {
    {"create", 2, 2, "create TYPE NAME"},
    {"rename", 2, 2, "rename BAG NEWNAME"},
    {"rm", 1, 1, "rm BAG"},
    {"erase", 1, 1, "erase BAG"},
    {"add", 2, -1, "add BAG FILE..."},
    {"move", 2, -1, "move BAG IMAGE..."},
};

}  // namespace

int runLibrary(const std::vector<std::string>& args) {
    LibraryOptions o;
    if (int status = parseLibraryOptions("library", args, o)) return status;
    if (o.args.size() != 1 || o.args[0] != "init")
        return usageError(o.args.empty() ? "library: give init"
                                         : "library: unknown action '" + o.args[0] + "' (init)");
    o.command = "library init";
    if (filesystem::exists(o.dir + "/" + kIndexName))
        return failure(o, "'" + o.dir + "' holds a library already");
    if (filesystem::exists(o.dir) && !filesystem::isDirectory(o.dir))
        return failure(o, "'" + o.dir + "' is not a folder");
    Session s;
    if (!s.open(o, true)) return 1;
    const LogCapture log(false);
    if (!s.library->saveLibraryFile())
        return failure(o, lastProblem(log, "cannot write " + std::string(kIndexName)));
    std::printf("library in %s\n", s.library->path().c_str());
    return 0;
}

int runLs(const std::vector<std::string>& args) {
    LibraryOptions o;
    if (int status = parseLibraryOptions("ls", args, o)) return status;
    if (o.args.size() > 1) return usageError("ls: give at most one BAG");
    Session s;
    if (!s.open(o, false)) return 1;
    return o.args.empty() ? listBags(o, s) : listBag(o, s, o.args[0]);
}

int runBag(const std::vector<std::string>& args) {
    LibraryOptions o;
    if (int status = parseLibraryOptions("bag", args, o)) return status;
    if (o.json) return usageError("bag: --json is for 'ls' and 'stars'");
    if (o.args.empty()) return usageError("bag: give create, rename, rm, erase, add or move");
    const BagAction* action = nullptr;
    for (const BagAction& a : kBagActions)
        if (o.args[0] == a.name) action = &a;
    if (!action)
        return usageError("bag: unknown action '" + o.args[0] +
                          "' (create, rename, rm, erase, add or move)");
    const int count = int(o.args.size()) - 1;
    if (count < action->least || (action->most >= 0 && count > action->most))
        return usageError(std::string("bag: usage: qor bag ") + action->synopsis);
    o.command = "bag " + o.args[0];
    Session s;
    if (!s.open(o, false)) return 1;
    return runBagAction(o, s);
}

int runStars(const std::vector<std::string>& args) {
    LibraryOptions o;
    if (int status = parseLibraryOptions("stars", args, o)) return status;
    unsigned long stars = 0;
    if (o.args.size() != 1 || !parseCount(o.args[0], stars) || stars > 5)
        return usageError("stars: give N, 0 to 5");
    Session s;
    if (!s.open(o, false)) return 1;
    mediadb::StarCollectionBag collection;
    collection.setLibrary(s.library.get());
    collection.setStarRaiting(int(stars));
    std::vector<std::string> paths;
    for (ResourceID id : collection.images())
        paths.push_back(s.library->getImageResourceName(id).localPath());
    std::sort(paths.begin(), paths.end());
    Json array = Json::array();
    for (const std::string& path : paths) {
        if (o.json)
            array.push_back(path);
        else
            std::printf("%s\n", path.c_str());
    }
    if (o.json) std::printf("%s\n", array.dump(2).c_str());
    return 0;
}

}  // namespace qor::tool
