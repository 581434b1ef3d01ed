#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "database/VkSqliteManager.h"
#include "platform/VkContext.h"
#include "platform/VkDate.h"
#include "platform/VkHttpClient.h"
#include "platform/VkPlist.h"

// Told the outcome of an update check. Called on the update loop's thread, or on the caller's
// thread when startUpdate answers at once; a delegate that touches the UI moves to the main
// thread itself.
class VkAddTorjanDelegate {
  public:
    virtual ~VkAddTorjanDelegate() = default;
    // success: the manifest was fetched, deciphered and read; updateDate: the date the last
    // successful manifest carried, if any did.
    virtual void updateTrojanData(bool success, std::optional<VkDate> updateDate) = 0;
};

// What a signed manifest says a database is: its SHA-256 (lower-case hex) and size.
struct VkUpdateChecksum {
    std::string sha256;
    uint64_t size = 0;
};

// What one check of the update server did, entry by entry (for the command line).
struct VkUpdateReport {
    enum class Failure {
        None,
        Fetch,
        Decipher,
        Parse,
        Unsigned,      // no signature, and unsigned updates are not allowed
        BadSignature,  // a signature that no trusted key made
        Rollback,      // a signed manifest older than the last one accepted
    };
    enum class Action {
        Downloaded,        // staged in "temp"
        NotNewer,          // not downloaded: a local copy is current (or the carry-over rule)
        BadWebPath,        // skipped: "webpath" is not a plain "NAME.sql" file name
        DownloadFailed,    // the server did not deliver the file
        ChecksumMismatch,  // discarded: not the file that "sha256" names
        WriteFailed,       // could not be written into the staging folder
        Unverifiable,      // skipped: the signed manifest gives no SHA-256 and size for it
        NotTaken,          // verified, then removed: another entry of its manifest did not match
    };
    struct Entry {
        std::string name;
        std::string version;
        std::string webpath;
        // Version of the last known database of that name (staged or installed), if any.
        std::optional<std::string> localVersion;
        Action action = Action::NotNewer;
        std::string detail;      // why a download failed
        std::string stagedPath;  // where a download was written
    };

    bool success = false;  // the loop's updateSuccess
    Failure failure = Failure::None;
    std::string error;  // what went wrong when success is false
    std::string manifestUrl;
    std::vector<Entry> entries;          // the manifest's dictionaries, in manifest order
    std::optional<VkDate> manifestDate;  // the trailing date of this manifest, if any
    // Who signed the manifest (the fingerprint and file of the trusted key), and its serial;
    // empty when it was taken unsigned.
    std::string signer;
    std::string signerKeyPath;
    std::optional<int64_t> serial;
};

// Keeps the user's signature databases current: installs the packaged databases, runs a
// background loop that fetches the enciphered update manifest and stages newer databases in
// the data folder's "temp", moves staged files into place on request, and adds databases
// that the user supplies. The scan center owns one instance.
//
// A database's kill list deletes files and ends processes, so only the publisher's databases
// are installed: the manifest must carry an Ed25519 signature ("version.xml.sig") of one of
// the trusted keys (updateKeyFolders()) and a serial no lower than the last one accepted, and
// every database must match the SHA-256 and size the signed manifest gives, when downloaded
// and again when applied. Unsigned manifests are taken only when the setting
// "AllowUnsignedUpdates" or setAllowUnsigned() says so; a bad signature never is.
class VkAddTorjanItems {
  public:
    // The manifest's folder on the update server, and its file name.
    static constexpr const char* kManifestFolder = "/velkora_soft_upgrade_files/trojanupdate/";
    static constexpr const char* kManifestName = "version.xml";
    // Wait limits of the loop, in ticks, after a successful and after a failed check.
    static constexpr uint64_t kSuccessWaitTicks = 900;
    static constexpr uint64_t kFailureWaitTicks = 300;
    // Tick length of a loop started by startUpdate.
    static constexpr double kDefaultTickSeconds = 2.0;
    // Largest manifest and largest database accepted from the update server.
    static constexpr uint64_t kMaxManifestBytes = 1ull << 20;
    static constexpr uint64_t kMaxDatabaseBytes = 256ull << 20;
    // The detached signature beside the manifest, and its largest accepted size.
    static constexpr const char* kSignatureName = "version.xml.sig";
    static constexpr uint64_t kMaxSignatureBytes = 4096;
    // The data folder's record of the last signed manifest's serial.
    static constexpr const char* kSerialFileName = "update.serial";
    static constexpr const char* kAllowUnsignedKey = "AllowUnsignedUpdates";
    // The data folder's lock ("update.lock", VkFileLock) that a check holds from the serial
    // comparison to the serial written, and that installing staged files tries for: processes
    // (the panel's loop, the timer's run, scans, the monitor) never interleave there.
    static constexpr const char* kLockName = "update";
    // How often a check waiting for another process's update looks again (and for a stop).
    static constexpr double kLockPollSeconds = 0.5;

    // Installs the packaged databases (resourceFolder/trojanDB/*.sql) that are missing from
    // the data folder or newer than the installed copy. Never fails; problems only cut the
    // installation short.
    explicit VkAddTorjanItems(std::shared_ptr<VkContext> ctx,
                              std::shared_ptr<VkHttpClient> http = nullptr);
    // Stops the loop and waits for its thread.
    ~VkAddTorjanItems();
    VkAddTorjanItems(const VkAddTorjanItems&) = delete;
    VkAddTorjanItems& operator=(const VkAddTorjanItems&) = delete;

    // True for a plain database file name that the update may fetch and stage: letters,
    // digits, ".", "-", "_" and "+", ending in ".sql", not starting with "." and without "..".
    static bool isPlainWebPath(const std::string& webpath);
    // The elements of a property list (XML or binary) whose root is an array, else nil.
    static std::optional<VkPlist::Array> arrayWithContentsOfData(const std::vector<uint8_t>& data);

    // The loop thread's body: check, tell the waiting delegate, wait for a request, repeat
    // until stopped.
    void checkDataBaseLoop();
    // Moves every staged "*.sql" into the data folder, replacing a file of the same name in
    // one step (rename); other staged files stay. A file that the signed manifest kept with
    // the staged files lists must match its SHA-256 and size (a swapped file is deleted); one
    // it does not list is installed only when unsigned updates are allowed. While a check in
    // any process holds the update lock nothing is touched: it may be staging files that its
    // manifest, not kept yet, vouches for. Returns the paths installed and adds
    // "PATH: REASON" to `refused` for every staged database left out (also one that could
    // not be moved: the installed database then stays, and so does the staged one), or for
    // the staging folder left for now.
    std::vector<std::string> copyToLocalPath(std::vector<std::string>* refused = nullptr);
    // Copies a database file into the data folder (path appended whole as a component).
    // Never replaces an existing file; true only when the copy succeeded.
    bool addItemByPath(const std::string& path);
    // Sets the tick length and starts the loop thread if there is none (and the loop was
    // never stopped); with a thread already running only the tick length changes.
    void startUpdateNotification(double tickSeconds);
    // Stops the loop for good and waits for its thread (at most one tick; a running download
    // is abandoned within about a second). Returns at once when no thread was ever started. A
    // delegate still waiting is released without a call.
    void stopUpdateNotification();
    // Asks for a result: starts the loop (2-second ticks) and reports its first check; or,
    // less than ten ticks after a successful check, answers at once on this thread; otherwise
    // ends the loop's wait at the next tick and reports that check. Replaces a delegate that
    // is still waiting. After stopUpdateNotification it answers at once with false.
    void startUpdate(std::shared_ptr<VkAddTorjanDelegate> delegate);

    // ---- Our additions ----

    // One synchronous check, as the loop makes it: fetch, decipher and read the manifest,
    // stage what is missing or newer. Updates updateSuccess and updateDate. Checks never
    // overlap, in one process or several: a second caller waits for the first (a stop ends
    // the wait, and the check then fails). Partial downloads that stopped checks left in the
    // staging folder are removed first.
    VkUpdateReport checkUpdateOnce();
    // The manifest's address on the configured update server.
    std::string manifestUrl() const;
    // Takes unsigned manifests for the life of this instance (`update --allow-unsigned`),
    // whatever the setting says.
    void setAllowUnsigned(bool allow) { allowUnsigned_ = allow; }
    bool allowsUnsigned() const;
    // Where trusted public keys are looked for: the resources' "updatekeys" and the
    // administrator's folder.
    std::vector<std::string> updateKeyFolders() const;
    // The serial of the last signed manifest accepted, 0 before the first.
    int64_t lastSerial() const;

    bool updateSuccess() const { return updateSuccess_.load(); }
    std::optional<VkDate> updateDate() const;
    uint64_t loopCount() const { return loopCount_.load(); }
    bool isContinueLoop() const { return isContinueLoop_.load(); }
    bool stopLoop() const { return stopLoop_.load(); }
    double sleepTime() const { return sleepTime_.load(); }

  private:
    struct Manifest;
    void installPackagedFiles();
    // The files the kept signed manifest lists, with their SHA-256 and size; nothing when
    // there is no kept manifest, or it is not signed by a trusted key, or it is not the last
    // one accepted.
    std::optional<std::map<std::string, VkUpdateChecksum>> signedStagedFiles() const;
    // Fetches, checks the signature of, deciphers and reads the manifest; on failure fills
    // the report's failure and error.
    std::optional<Manifest> fetchManifest(VkUpdateReport& report);
    // Downloads one database of the manifest into the staging folder and records the outcome.
    void stageDownload(const std::string& url, const VkPlist& element, bool signedManifest,
                       VkUpdateReport::Entry& entry);
    // Keeps the signed manifest beside the staged files it vouches for.
    void keepSignedManifest(const Manifest& manifest);
    // Removes the staging folder's partial downloads: all of them when the update lock is
    // held (no other check is running), else those whose process is gone.
    void removeStalePartials(bool lockHeld);
    void tellWaitingDelegate();
    void waitForRequest();
    std::string stagingFolder() const;
    std::string serverBase() const;

    std::shared_ptr<VkContext> ctx_;
    std::shared_ptr<VkHttpClient> http_;
    std::shared_ptr<VkPacing> pacing_;

    // The store is not thread-safe; the loop and addItemByPath share it.
    std::mutex sqliteMutex_;
    VkSqliteManager sqliteManager_;

    std::atomic<double> sleepTime_{kDefaultTickSeconds};
    std::atomic<bool> isContinueLoop_{false};
    std::atomic<bool> stopLoop_{false};
    std::atomic<bool> updateSuccess_{false};
    std::atomic<bool> allowUnsigned_{false};
    std::atomic<uint64_t> loopCount_{0};

    std::mutex threadMutex_;
    std::thread loopThread_;

    mutable std::mutex stateMutex_;  // updateDate_ and torjanDelegate_
    std::optional<VkDate> updateDate_;
    std::shared_ptr<VkAddTorjanDelegate> torjanDelegate_;

    std::mutex checkMutex_;  // one check at a time
};
