#pragma once

#include <memory>
#include <string>
#include <vector>

#include "platform/VkClock.h"
#include "platform/VkCoreFunction.h"
#include "platform/VkHandle.h"
#include "remediation/VkQuarantineFileItem.h"

// The quarantine: detected files moved into one folder of the user's, with the list of
// them in "info.list" beside them. Every change reloads the list under a lock beside it,
// changes it and writes it, so two processes (the panel and the command line) never lose
// each other's records; a record is written before its file is moved in, so a writer
// killed between the move and the save never leaves a file without a record. Every action
// opens the folder from the data folder without following a link and then works in that
// open folder: whoever can write the data folder cannot turn a listing, a delete or a
// rewrite of the list onto another folder by putting a link (or anything else) there.
class VkQuarantineFileManager {
  public:
    using ItemList = std::vector<std::shared_ptr<VkQuarantineFileItem>>;

    // Prepares the folder "trojan_Quarantine" of the data folder (created without parents,
    // readable only by its owner) and loads the list, reconciling it with the folder (see
    // reload). Files move in and out through coreFunction; clock names them.
    VkQuarantineFileManager(std::string dataFolder, std::shared_ptr<VkClock> clock,
                            std::shared_ptr<VkCoreFunction> coreFunction);

    // The process-wide store on the default context.
    static std::shared_ptr<VkQuarantineFileManager> shareManager();

    // The live list itself; sorting it reorders what the next save writes.
    ItemList& allQuarantineItems() { return quarantineItemArray_; }

    // Moves the record's originalPath into the folder under a free name and records it.
    // Nothing changes when the move fails. Returns whether it was quarantined.
    bool addItem(const std::shared_ptr<VkQuarantineFileItem>& item);
    // Moves the file back to its originalPath; the record stays when that fails.
    // The record is taken by value: the list it may come from is read again meanwhile.
    bool recoverItem(std::shared_ptr<VkQuarantineFileItem> item);
    // Forgets the record, then deletes its file (the record goes even if that fails).
    // Only a file lying directly in the quarantine folder is ever restored, and only a
    // regular file there is ever deleted (never a folder, never through a link). Nothing
    // changes in a quarantine that foreignOwner refuses.
    bool removeItem(std::shared_ptr<VkQuarantineFileItem> item);
    // Forgets every record; the files themselves stay in the folder.
    void removeAllItem();
    // Writes the list to "info.list" (temporary file, then rename), merged under the lock
    // with what other processes wrote meanwhile.
    bool saveQuarantineInfoList();
    // Reads "info.list" again and reconciles it with the folder: a record whose move never
    // happened is dropped, a file without a record gets one (marked found on reconcile),
    // temporary files of killed writers are removed. Records already held keep their
    // objects and their order.
    void reload();

    std::string quarantineFolder() const;
    std::string infoListPath() const;
    // The free name that addItem would use now for a file named like `originalPath`.
    std::string candidatePathFor(const std::string& originalPath) const;
    // True when path names a quarantined file: directly in the folder, not the list itself.
    bool holdsFile(const std::string& path) const;
    // Empty when "trojan_Quarantine" in the data folder is a folder (or not there yet);
    // else why it is refused: a link or anything but a folder there is never acted on,
    // and nothing is listed from it.
    std::string folderRefusal() const;
    // Empty when this user owns the folder and its list; else why the list is not to be
    // acted on (folderRefusal first). Neither a restore, a delete nor any write of the
    // list happens then: a list another user can write says where a restore puts a file
    // and which file a delete removes, so one run with more rights (an administrator's, for
    // a user) would move or delete that user's choice of files anywhere.
    std::string foreignOwner() const;

  private:
    // The quarantine folder opened from the data folder without following a link: fd is
    // not valid when nothing is there (refusal empty) or when something else is (refusal
    // says what); foreign says why nothing in it is to be changed.
    struct Folder {
        VkFd fd;
        std::string refusal;
        std::string foreign;
        // The folder to change things in (lock, list, files), or -1.
        int writable() const { return foreign.empty() ? fd.get() : -1; }
    };
    Folder openFolder(bool create = false) const;

    // Under the lock (when the folder is writable): merge the list on disk into the live
    // list, reconcile, and say whether the result differs from the file. Records held but
    // not on disk are dropped (another process restored or deleted them) unless keepHeld
    // says they are ours to write.
    bool reloadLocked(const Folder& folder, bool keepHeld = false);
    // False, writing nothing, unless the folder is writable.
    bool writeLocked(const Folder& folder);
    bool isReservedName(const std::string& name) const;

    std::string dataFolder_;
    std::shared_ptr<VkClock> clock_;
    std::shared_ptr<VkCoreFunction> coreFunction_;
    ItemList quarantineItemArray_;
};
