#include "platform/VkKeyedArchiver.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

// An NSArray of two NSArrays of strings, [["d", "/Library/Foo", "bar.plist"], ["k", "Foo"]],
// laid out byte by byte as the platform's archiver writes a kill list: "$null" first, one
// class description shared by the three arrays, keys and UIDs stored once and shared.
// clang-format off
const std::vector<uint8_t> kPlatformKillList = {
    // header
    'b', 'p', 'l', 'i', 's', 't', '0', '0',
    // 0 @8: top dict: $version $archiver $top $objects
    0xD4, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08,
    // 1 @17: "$version"
    0x58, '$', 'v', 'e', 'r', 's', 'i', 'o', 'n',
    // 2 @26: "$archiver"
    0x59, '$', 'a', 'r', 'c', 'h', 'i', 'v', 'e', 'r',
    // 3 @36: "$top"
    0x54, '$', 't', 'o', 'p',
    // 4 @41: "$objects"
    0x58, '$', 'o', 'b', 'j', 'e', 'c', 't', 's',
    // 5 @50: int 100000
    0x12, 0x00, 0x01, 0x86, 0xA0,
    // 6 @55: "NSKeyedArchiver" (15 chars: long-length form)
    0x5F, 0x10, 0x0F, 'N', 'S', 'K', 'e', 'y', 'e', 'd', 'A', 'r', 'c', 'h', 'i', 'v', 'e', 'r',
    // 7 @73: $top = {root: UID 1}
    0xD1, 0x09, 0x0A,
    // 8 @76: $objects: 10 entries
    0xAA, 0x0B, 0x0C, 0x0D, 0x0E, 0x0F, 0x10, 0x11, 0x12, 0x13, 0x14,
    // 9 @87: "root"
    0x54, 'r', 'o', 'o', 't',
    // 10 @92: UID 1
    0x80, 0x01,
    // 11 @94: $objects[0] "$null"
    0x55, '$', 'n', 'u', 'l', 'l',
    // 12 @100: $objects[1] outer NSArray {NS.objects: [UID 2, UID 7], $class: UID 6}
    0xD2, 0x15, 0x16, 0x17, 0x18,
    // 13 @105: $objects[2] inner NSArray {NS.objects: [UID 3, UID 4, UID 5], $class: UID 6}
    0xD2, 0x15, 0x16, 0x19, 0x18,
    // 14 @110: $objects[3] "d"
    0x51, 'd',
    // 15 @112: $objects[4] "/Library/Foo"
    0x5C, '/', 'L', 'i', 'b', 'r', 'a', 'r', 'y', '/', 'F', 'o', 'o',
    // 16 @125: $objects[5] "bar.plist"
    0x59, 'b', 'a', 'r', '.', 'p', 'l', 'i', 's', 't',
    // 17 @135: $objects[6] class {$classname: "NSArray", $classes: ["NSArray", "NSObject"]}
    0xD2, 0x1A, 0x1B, 0x1C, 0x1D,
    // 18 @140: $objects[7] inner NSArray {NS.objects: [UID 8, UID 9], $class: UID 6}
    0xD2, 0x15, 0x16, 0x1F, 0x18,
    // 19 @145: $objects[8] "k"
    0x51, 'k',
    // 20 @147: $objects[9] "Foo"
    0x53, 'F', 'o', 'o',
    // 21 @151: "NS.objects"
    0x5A, 'N', 'S', '.', 'o', 'b', 'j', 'e', 'c', 't', 's',
    // 22 @162: "$class"
    0x56, '$', 'c', 'l', 'a', 's', 's',
    // 23 @169: [UID 2, UID 7]
    0xA2, 0x20, 0x21,
    // 24 @172: UID 6 (shared by all three arrays)
    0x80, 0x06,
    // 25 @174: [UID 3, UID 4, UID 5]
    0xA3, 0x22, 0x23, 0x24,
    // 26 @178: "$classname"
    0x5A, '$', 'c', 'l', 'a', 's', 's', 'n', 'a', 'm', 'e',
    // 27 @189: "$classes"
    0x58, '$', 'c', 'l', 'a', 's', 's', 'e', 's',
    // 28 @198: "NSArray" (class name and first of $classes)
    0x57, 'N', 'S', 'A', 'r', 'r', 'a', 'y',
    // 29 @206: ["NSArray", "NSObject"]
    0xA2, 0x1C, 0x1E,
    // 30 @209: "NSObject"
    0x58, 'N', 'S', 'O', 'b', 'j', 'e', 'c', 't',
    // 31 @218: [UID 8, UID 9]
    0xA2, 0x25, 0x26,
    // 32 @221: UID 2
    0x80, 0x02,
    // 33 @223: UID 7
    0x80, 0x07,
    // 34 @225: UID 3
    0x80, 0x03,
    // 35 @227: UID 4
    0x80, 0x04,
    // 36 @229: UID 5
    0x80, 0x05,
    // 37 @231: UID 8
    0x80, 0x08,
    // 38 @233: UID 9
    0x80, 0x09,
    // offset table at 235: one 1-byte offset per object
    0x08, 0x11, 0x1A, 0x24, 0x29, 0x32, 0x37, 0x49, 0x4C, 0x57, 0x5C, 0x5E, 0x64, 0x69, 0x6E, 0x70, 0x7D, 0x87, 0x8C, 0x91, 0x93, 0x97, 0xA2, 0xA9, 0xAC, 0xAE, 0xB2, 0xBD, 0xC6, 0xCE, 0xD1, 0xDA, 0xDD, 0xDF, 0xE1, 0xE3, 0xE5, 0xE7, 0xE9,
    // trailer: 6 unused, offset size 1, ref size 1, 39 objects, top object 0, table at 235
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x01, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x27, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0xEB,
};

// The file monitor's list as the platform writes it: an NSMutableArray of two
// VkFileMonLogsItem records. The first names its process path through an NSMutableString
// object, the second has no process path (UID 0), both share the string "Safari", and the
// four NSDate objects share one class description. Offsets need two bytes here.
const std::vector<uint8_t> kPlatformFileMonList = {
    // header
    'b', 'p', 'l', 'i', 's', 't', '0', '0',
    // 0 @8: top dict: $version $archiver $top $objects
    0xD4, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08,
    // 1 @17: "$version"
    0x58, '$', 'v', 'e', 'r', 's', 'i', 'o', 'n',
    // 2 @26: "$archiver"
    0x59, '$', 'a', 'r', 'c', 'h', 'i', 'v', 'e', 'r',
    // 3 @36: "$top"
    0x54, '$', 't', 'o', 'p',
    // 4 @41: "$objects"
    0x58, '$', 'o', 'b', 'j', 'e', 'c', 't', 's',
    // 5 @50: int 100000
    0x12, 0x00, 0x01, 0x86, 0xA0,
    // 6 @55: "NSKeyedArchiver" (15 chars: long-length form)
    0x5F, 0x10, 0x0F, 'N', 'S', 'K', 'e', 'y', 'e', 'd', 'A', 'r', 'c', 'h', 'i', 'v', 'e', 'r',
    // 7 @73: $top = {root: UID 1}
    0xD1, 0x09, 0x0A,
    // 8 @76: $objects: 18 entries (15 or more: 0xAF, then the count as int 0x10 0x12)
    0xAF, 0x10, 0x12, 0x0B, 0x0C, 0x0D, 0x0E, 0x0F, 0x10, 0x11, 0x12, 0x13, 0x14, 0x15, 0x16, 0x17, 0x18, 0x19, 0x1A, 0x1B, 0x1C,
    // 9 @97: "root"
    0x54, 'r', 'o', 'o', 't',
    // 10 @102: UID 1
    0x80, 0x01,
    // 11 @104: $objects[0] "$null"
    0x55, '$', 'n', 'u', 'l', 'l',
    // 12 @110: $objects[1] NSMutableArray {NS.objects: [UID 2, UID 12], $class: UID 17}
    0xD2, 0x1D, 0x1E, 0x29, 0x2A,
    // 13 @115: $objects[2] VkFileMonLogsItem {$class: UID 11, filePath: UID 3, processName: UID 4, processPath: UID 5, trojanName: UID 7, downLoadTime: UID 8, logTime: UID 10}
    0xD7, 0x1E, 0x1F, 0x20, 0x21, 0x22, 0x23, 0x24, 0x2B, 0x2C, 0x2D, 0x2E, 0x2F, 0x30, 0x31,
    // 14 @130: $objects[3] "/Users/a/Downloads/x.dmg"
    0x5F, 0x10, 0x18, '/', 'U', 's', 'e', 'r', 's', '/', 'a', '/', 'D', 'o', 'w', 'n', 'l', 'o', 'a', 'd', 's', '/', 'x', '.', 'd', 'm', 'g',
    // 15 @157: $objects[4] "Safari" (named by both records)
    0x56, 'S', 'a', 'f', 'a', 'r', 'i',
    // 16 @164: $objects[5] NSMutableString {NS.string: "/Applications/Safari.app", $class: UID 6}
    0xD2, 0x25, 0x1E, 0x3B, 0x32,
    // 17 @169: $objects[6] class {$classname: "NSMutableString", $classes: ["NSMutableString", "NSString", "NSObject"]}
    0xD2, 0x26, 0x27, 0x3C, 0x43,
    // 18 @174: $objects[7] "OSX/Test.A"
    0x5A, 'O', 'S', 'X', '/', 'T', 'e', 's', 't', '.', 'A',
    // 19 @185: $objects[8] NSDate {NS.time: 700000000.0, $class: UID 9}
    0xD2, 0x28, 0x1E, 0x47, 0x33,
    // 20 @190: $objects[9] class {$classname: "NSDate", $classes: ["NSDate", "NSObject"]}
    0xD2, 0x26, 0x27, 0x3F, 0x44,
    // 21 @195: $objects[10] NSDate {NS.time: 700000060.5, $class: UID 9}
    0xD2, 0x28, 0x1E, 0x48, 0x33,
    // 22 @200: $objects[11] class {$classname: "VkFileMonLogsItem", $classes: ["VkFileMonLogsItem", "NSObject"]}
    0xD2, 0x26, 0x27, 0x40, 0x45,
    // 23 @205: $objects[12] VkFileMonLogsItem {$class: UID 11, filePath: UID 13, processName: UID 4, processPath: UID 0 (nil), trojanName: UID 14, downLoadTime: UID 15, logTime: UID 16}
    0xD7, 0x1E, 0x1F, 0x20, 0x21, 0x22, 0x23, 0x24, 0x2B, 0x34, 0x2D, 0x35, 0x36, 0x37, 0x38,
    // 24 @220: $objects[13] "/tmp/y.zip"
    0x5A, '/', 't', 'm', 'p', '/', 'y', '.', 'z', 'i', 'p',
    // 25 @231: $objects[14] "OSX/Test.B"
    0x5A, 'O', 'S', 'X', '/', 'T', 'e', 's', 't', '.', 'B',
    // 26 @242: $objects[15] NSDate {NS.time: 700000100.0, $class: UID 9}
    0xD2, 0x28, 0x1E, 0x49, 0x33,
    // 27 @247: $objects[16] NSDate {NS.time: 700000160.25, $class: UID 9}
    0xD2, 0x28, 0x1E, 0x4A, 0x33,
    // 28 @252: $objects[17] class {$classname: "NSMutableArray", $classes: ["NSMutableArray", "NSArray", "NSObject"]}
    0xD2, 0x26, 0x27, 0x41, 0x46,
    // 29 @257: "NS.objects"
    0x5A, 'N', 'S', '.', 'o', 'b', 'j', 'e', 'c', 't', 's',
    // 30 @268: "$class"
    0x56, '$', 'c', 'l', 'a', 's', 's',
    // 31 @275: "filePath"
    0x58, 'f', 'i', 'l', 'e', 'P', 'a', 't', 'h',
    // 32 @284: "processName"
    0x5B, 'p', 'r', 'o', 'c', 'e', 's', 's', 'N', 'a', 'm', 'e',
    // 33 @296: "processPath"
    0x5B, 'p', 'r', 'o', 'c', 'e', 's', 's', 'P', 'a', 't', 'h',
    // 34 @308: "trojanName"
    0x5A, 't', 'r', 'o', 'j', 'a', 'n', 'N', 'a', 'm', 'e',
    // 35 @319: "downLoadTime"
    0x5C, 'd', 'o', 'w', 'n', 'L', 'o', 'a', 'd', 'T', 'i', 'm', 'e',
    // 36 @332: "logTime"
    0x57, 'l', 'o', 'g', 'T', 'i', 'm', 'e',
    // 37 @340: "NS.string"
    0x59, 'N', 'S', '.', 's', 't', 'r', 'i', 'n', 'g',
    // 38 @350: "$classname"
    0x5A, '$', 'c', 'l', 'a', 's', 's', 'n', 'a', 'm', 'e',
    // 39 @361: "$classes"
    0x58, '$', 'c', 'l', 'a', 's', 's', 'e', 's',
    // 40 @370: "NS.time"
    0x57, 'N', 'S', '.', 't', 'i', 'm', 'e',
    // 41 @378: [UID 2, UID 12]
    0xA2, 0x39, 0x3A,
    // 42 @381: UID 17
    0x80, 0x11,
    // 43 @383: UID 11
    0x80, 0x0B,
    // 44 @385: UID 3
    0x80, 0x03,
    // 45 @387: UID 4
    0x80, 0x04,
    // 46 @389: UID 5
    0x80, 0x05,
    // 47 @391: UID 7
    0x80, 0x07,
    // 48 @393: UID 8
    0x80, 0x08,
    // 49 @395: UID 10
    0x80, 0x0A,
    // 50 @397: UID 6
    0x80, 0x06,
    // 51 @399: UID 9
    0x80, 0x09,
    // 52 @401: UID 13
    0x80, 0x0D,
    // 53 @403: UID 0 ($null: nil)
    0x80, 0x00,
    // 54 @405: UID 14
    0x80, 0x0E,
    // 55 @407: UID 15
    0x80, 0x0F,
    // 56 @409: UID 16
    0x80, 0x10,
    // 57 @411: UID 2
    0x80, 0x02,
    // 58 @413: UID 12
    0x80, 0x0C,
    // 59 @415: "/Applications/Safari.app"
    0x5F, 0x10, 0x18, '/', 'A', 'p', 'p', 'l', 'i', 'c', 'a', 't', 'i', 'o', 'n', 's', '/', 'S', 'a', 'f', 'a', 'r', 'i', '.', 'a', 'p', 'p',
    // 60 @442: "NSMutableString"
    0x5F, 0x10, 0x0F, 'N', 'S', 'M', 'u', 't', 'a', 'b', 'l', 'e', 'S', 't', 'r', 'i', 'n', 'g',
    // 61 @460: "NSString"
    0x58, 'N', 'S', 'S', 't', 'r', 'i', 'n', 'g',
    // 62 @469: "NSObject"
    0x58, 'N', 'S', 'O', 'b', 'j', 'e', 'c', 't',
    // 63 @478: "NSDate"
    0x56, 'N', 'S', 'D', 'a', 't', 'e',
    // 64 @485: "VkFileMonLogsItem"
    0x5F, 0x10, 0x11, 'V', 'k', 'F', 'i', 'l', 'e', 'M', 'o', 'n', 'L', 'o', 'g', 's', 'I', 't', 'e', 'm',
    // 65 @505: "NSMutableArray"
    0x5E, 'N', 'S', 'M', 'u', 't', 'a', 'b', 'l', 'e', 'A', 'r', 'r', 'a', 'y',
    // 66 @520: "NSArray"
    0x57, 'N', 'S', 'A', 'r', 'r', 'a', 'y',
    // 67 @528: ["NSMutableString", "NSString", "NSObject"]
    0xA3, 0x3C, 0x3D, 0x3E,
    // 68 @532: ["NSDate", "NSObject"]
    0xA2, 0x3F, 0x3E,
    // 69 @535: ["VkFileMonLogsItem", "NSObject"]
    0xA2, 0x40, 0x3E,
    // 70 @538: ["NSMutableArray", "NSArray", "NSObject"]
    0xA3, 0x41, 0x42, 0x3E,
    // 71 @542: real 700000000.0
    0x23, 0x41, 0xC4, 0xDC, 0x93, 0x80, 0x00, 0x00, 0x00,
    // 72 @551: real 700000060.5
    0x23, 0x41, 0xC4, 0xDC, 0x93, 0x9E, 0x40, 0x00, 0x00,
    // 73 @560: real 700000100.0
    0x23, 0x41, 0xC4, 0xDC, 0x93, 0xB2, 0x00, 0x00, 0x00,
    // 74 @569: real 700000160.25
    0x23, 0x41, 0xC4, 0xDC, 0x93, 0xD0, 0x20, 0x00, 0x00,
    // offset table at 578: one 2-byte offset per object
    0x00, 0x08, 0x00, 0x11, 0x00, 0x1A, 0x00, 0x24, 0x00, 0x29, 0x00, 0x32, 0x00, 0x37, 0x00, 0x49,
    0x00, 0x4C, 0x00, 0x61, 0x00, 0x66, 0x00, 0x68, 0x00, 0x6E, 0x00, 0x73, 0x00, 0x82, 0x00, 0x9D,
    0x00, 0xA4, 0x00, 0xA9, 0x00, 0xAE, 0x00, 0xB9, 0x00, 0xBE, 0x00, 0xC3, 0x00, 0xC8, 0x00, 0xCD,
    0x00, 0xDC, 0x00, 0xE7, 0x00, 0xF2, 0x00, 0xF7, 0x00, 0xFC, 0x01, 0x01, 0x01, 0x0C, 0x01, 0x13,
    0x01, 0x1C, 0x01, 0x28, 0x01, 0x34, 0x01, 0x3F, 0x01, 0x4C, 0x01, 0x54, 0x01, 0x5E, 0x01, 0x69,
    0x01, 0x72, 0x01, 0x7A, 0x01, 0x7D, 0x01, 0x7F, 0x01, 0x81, 0x01, 0x83, 0x01, 0x85, 0x01, 0x87,
    0x01, 0x89, 0x01, 0x8B, 0x01, 0x8D, 0x01, 0x8F, 0x01, 0x91, 0x01, 0x93, 0x01, 0x95, 0x01, 0x97,
    0x01, 0x99, 0x01, 0x9B, 0x01, 0x9D, 0x01, 0x9F, 0x01, 0xBA, 0x01, 0xCC, 0x01, 0xD5, 0x01, 0xDE,
    0x01, 0xE5, 0x01, 0xF9, 0x02, 0x08, 0x02, 0x10, 0x02, 0x14, 0x02, 0x17, 0x02, 0x1A, 0x02, 0x1E,
    0x02, 0x27, 0x02, 0x30, 0x02, 0x39,
    // trailer: 6 unused, offset size 2, ref size 1, 75 objects, top object 0, table at 578
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x02, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x4B, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x02, 0x42,
};
// clang-format on

constexpr double kRef = VkDate::kReferenceDateOffset;

// A record with the file monitor's six coder keys, as its own class will encode them.
class MonItem : public VkCodable {
  public:
    std::optional<std::string> filePath, processName, processPath, trojanName;
    std::optional<VkDate> downLoadTime, logTime;

    std::string className() const override { return "VkFileMonLogsItem"; }
    void encodeWithCoder(VkKeyedArchiver& coder) const override {
        coder.encodeObject(filePath, "filePath");
        coder.encodeObject(processName, "processName");
        coder.encodeObject(processPath, "processPath");
        coder.encodeObject(trojanName, "trojanName");
        coder.encodeObject(downLoadTime, "downLoadTime");
        coder.encodeObject(logTime, "logTime");
    }
    static std::shared_ptr<VkCodable> initWithCoder(VkKeyedUnarchiver& coder) {
        auto item = std::make_shared<MonItem>();
        item->filePath = coder.decodeStringForKey("filePath");
        item->processName = coder.decodeStringForKey("processName");
        item->processPath = coder.decodeStringForKey("processPath");
        item->trojanName = coder.decodeStringForKey("trojanName");
        item->downLoadTime = coder.decodeDateForKey("downLoadTime");
        item->logTime = coder.decodeDateForKey("logTime");
        return item;
    }
};

// A linked node: lets a test build objects that refer to each other.
class Node : public VkCodable {
  public:
    std::string label;
    int64_t weight = 0;
    bool flag = false;
    double ratio = 0;
    std::shared_ptr<Node> next;

    std::string className() const override { return "TestNode"; }
    void encodeWithCoder(VkKeyedArchiver& coder) const override {
        coder.encodeObject(label, "label");
        coder.encodeInt64(weight, "weight");
        coder.encodeBool(flag, "flag");
        coder.encodeDouble(ratio, "ratio");
        coder.encodeObject(next, "next");
        coder.encodeObject("kept apart from the coder's own key", "$class");
    }
    static std::shared_ptr<VkCodable> initWithCoder(VkKeyedUnarchiver& coder) {
        auto node = std::make_shared<Node>();
        node->label = coder.decodeStringForKey("label").value_or("");
        node->weight = coder.decodeInt64ForKey("weight");
        node->flag = coder.decodeBoolForKey("flag");
        node->ratio = coder.decodeDoubleForKey("ratio");
        node->next = coder.decodeObjectForKey("next").asObject<Node>();
        return node;
    }
};

VkKeyedUnarchiver unarchiverWithTestClasses() {
    VkKeyedUnarchiver unarchiver;
    unarchiver.registerClass("VkFileMonLogsItem", &MonItem::initWithCoder);
    unarchiver.registerClass("TestNode", &Node::initWithCoder);
    return unarchiver;
}

VkPlist killList() {
    return VkPlist::array(
        {VkPlist::array({"d", "/Library/Foo", "bar.plist"}), VkPlist::array({"k", "Foo"})});
}

// Archive bytes around a hand-made "$objects" list, root at UID 1.
std::vector<uint8_t> archiveOf(VkPlist objects, VkPlist root = VkPlist::uid(1)) {
    VkPlist top = VkPlist::dictionary({{"$archiver", "NSKeyedArchiver"},
                                       {"$version", VkPlist::integer(100000)},
                                       {"$top", VkPlist::dictionary({{"root", root}})}});
    top.set("$objects", std::move(objects));
    return top.toBinary();
}

VkPlist arrayClass() {
    return VkPlist::dictionary(
        {{"$classname", "NSArray"}, {"$classes", VkPlist::array({"NSArray", "NSObject"})}});
}

VkPlist arrayOf(std::initializer_list<uint64_t> uids, uint64_t classUid) {
    VkPlist refs = VkPlist::array();
    for (uint64_t uid : uids)
        refs.append(VkPlist::uid(uid));
    return VkPlist::dictionary({{"NS.objects", refs}, {"$class", VkPlist::uid(classUid)}});
}

VkResult<VkArchivedValue> unarchive(const std::vector<uint8_t>& bytes) {
    VkKeyedUnarchiver unarchiver = unarchiverWithTestClasses();
    return unarchiver.unarchiveRootObject(bytes);
}

// ---- Files written by the platform ------------------------------------------------------

TEST(VkKeyedArchiverPlatformTest, ReadsAKillListArchivedByThePlatform) {
    auto decoded = VkKeyedUnarchiver::unarchiveObjectWithData(kPlatformKillList);
    ASSERT_TRUE(decoded.ok()) << decoded.error();
    EXPECT_EQ(*decoded, killList());
}

TEST(VkKeyedArchiverPlatformTest, ReadsFileMonitorRecordsArchivedByThePlatform) {
    auto decoded = unarchive(kPlatformFileMonList);
    ASSERT_TRUE(decoded.ok()) << decoded.error();
    const VkArchivedValue::Array* records = decoded->asArray();
    ASSERT_NE(records, nullptr);
    ASSERT_EQ(records->size(), 2u);
    auto first = (*records)[0].asObject<MonItem>();
    auto second = (*records)[1].asObject<MonItem>();
    ASSERT_TRUE(first && second);
    EXPECT_EQ(first->filePath, "/Users/a/Downloads/x.dmg");
    EXPECT_EQ(first->processName, "Safari");
    EXPECT_EQ(first->processPath, "/Applications/Safari.app");  // an NSMutableString object
    EXPECT_EQ(first->trojanName, "OSX/Test.A");
    EXPECT_EQ(first->downLoadTime, (VkDate{kRef + 700000000.0}));
    EXPECT_EQ(first->logTime, (VkDate{kRef + 700000060.5}));
    EXPECT_EQ(second->filePath, "/tmp/y.zip");
    EXPECT_EQ(second->processName, "Safari");  // the shared string
    EXPECT_EQ(second->processPath, std::nullopt);
    EXPECT_EQ(second->trojanName, "OSX/Test.B");
    EXPECT_EQ(second->downLoadTime, (VkDate{kRef + 700000100.0}));
    EXPECT_EQ(second->logTime, (VkDate{kRef + 700000160.25}));
}

TEST(VkKeyedArchiverPlatformTest, RecordsOfAnUnregisteredClassMakeTheArchiveUnreadable) {
    auto plain = VkKeyedUnarchiver::unarchiveObjectWithData(kPlatformFileMonList);
    ASSERT_FALSE(plain.ok());
    EXPECT_NE(plain.error().find("VkFileMonLogsItem"), std::string::npos) << plain.error();
}

TEST(VkKeyedArchiverPlatformTest, ReadsMutableStringAndDataObjectsAndDictionaries) {
    VkPlist dictClass = VkPlist::dictionary(
        {{"$classname", "NSMutableDictionary"},
         {"$classes", VkPlist::array({"NSMutableDictionary", "NSDictionary", "NSObject"})}});
    VkPlist stringClass = VkPlist::dictionary({{"$classname", "NSMutableString"}});
    VkPlist dataClass = VkPlist::dictionary({{"$classname", "NSMutableData"}});
    VkPlist objects = VkPlist::array({
        "$null",
        VkPlist::dictionary({{"NS.keys", VkPlist::array({VkPlist::uid(2), VkPlist::uid(3)})},
                             {"NS.objects", VkPlist::array({VkPlist::uid(4), VkPlist::uid(6)})},
                             {"$class", VkPlist::uid(8)}}),
        "text",
        "blob",
        VkPlist::dictionary({{"NS.string", "mutable"}, {"$class", VkPlist::uid(5)}}),
        stringClass,
        VkPlist::dictionary({{"NS.data", VkPlist::Data{1, 2, 3}}, {"$class", VkPlist::uid(7)}}),
        dataClass,
        dictClass,
    });
    auto decoded = VkKeyedUnarchiver::unarchiveObjectWithData(archiveOf(objects));
    ASSERT_TRUE(decoded.ok()) << decoded.error();
    EXPECT_EQ(*decoded, VkPlist::dictionary(
                            {{"text", "mutable"}, {"blob", VkPlist(VkPlist::Data{1, 2, 3})}}));
}

// ---- Round trips ------------------------------------------------------------------------

TEST(VkKeyedArchiverRoundTripTest, KillListComesBackEqualAndIsAKeyedArchive) {
    auto bytes = VkKeyedArchiver::archivedDataWithRootObject(killList());
    ASSERT_TRUE(bytes.ok()) << bytes.error();
    ASSERT_GE(bytes->size(), 8u);
    EXPECT_EQ(std::string(bytes->begin(), bytes->begin() + 8), "bplist00");
    auto decoded = VkKeyedUnarchiver::unarchiveObjectWithData(*bytes);
    ASSERT_TRUE(decoded.ok()) << decoded.error();
    EXPECT_EQ(*decoded, killList());

    auto plist = VkPlist::parse(bytes->data(), bytes->size());
    ASSERT_TRUE(plist.ok()) << plist.error();
    ASSERT_NE(plist->getString("$archiver"), nullptr);
    EXPECT_EQ(*plist->getString("$archiver"), "NSKeyedArchiver");
    EXPECT_EQ(plist->get("$version")->asInt64(), 100000);
    EXPECT_EQ(plist->get("$top")->get("root")->asUid(), 1u);
    const VkPlist::Array& objects = *plist->get("$objects")->asArray();
    EXPECT_EQ(objects[0], VkPlist("$null"));
    // Three arrays share one class description, and the root is an NSArray of two UIDs.
    size_t classes = 0;
    for (const VkPlist& entry : objects)
        classes += entry.get("$classname") ? 1 : 0;
    EXPECT_EQ(classes, 1u);
    const VkPlist& cls = objects[*objects[1].get("$class")->asUid()];
    EXPECT_EQ(*cls.getString("$classname"), "NSArray");
    EXPECT_EQ(*cls.get("$classes"), VkPlist::array({"NSArray", "NSObject"}));
    EXPECT_EQ(objects[1].get("NS.objects")->asArray()->size(), 2u);
}

TEST(VkKeyedArchiverRoundTripTest, EveryPlainTypeComesBackEqual) {
    VkPlist value = VkPlist::dictionary({
        {"text", "h\xC3\xA9llo / w\xC3\xB6rld"},
        {"empty", ""},
        {"negative", VkPlist::integer(-42)},
        {"big", VkPlist::integer(5000000000LL)},
        {"real", VkPlist::real(2.5)},
        {"yes", VkPlist::boolean(true)},
        {"no", VkPlist::boolean(false)},
        {"bytes", VkPlist(VkPlist::Data{0, 255, 7})},
        {"when", VkPlist(VkDate{1700000000.25})},
        {"nested", VkPlist::array({VkPlist::array(), VkPlist::dictionary({{"$odd", "key"}})})},
    });
    auto bytes = VkKeyedArchiver::archivedDataWithRootObject(value);
    ASSERT_TRUE(bytes.ok()) << bytes.error();
    auto decoded = VkKeyedUnarchiver::unarchiveObjectWithData(*bytes);
    ASSERT_TRUE(decoded.ok()) << decoded.error();
    EXPECT_EQ(*decoded, value);
    EXPECT_EQ(decoded->get("when")->asDate(), VkDate{1700000000.25});
}

TEST(VkKeyedArchiverRoundTripTest, EqualStringsAreStoredOnce) {
    VkPlist value = VkPlist::array({VkPlist::array({"k", "Foo"}), VkPlist::array({"k", "Foo"})});
    auto bytes = VkKeyedArchiver::archivedDataWithRootObject(value);
    ASSERT_TRUE(bytes.ok()) << bytes.error();
    auto plist = VkPlist::parse(bytes->data(), bytes->size());
    ASSERT_TRUE(plist.ok());
    size_t foos = 0;
    for (const VkPlist& entry : *plist->get("$objects")->asArray())
        foos += entry == VkPlist("Foo") ? 1 : 0;
    EXPECT_EQ(foos, 1u);
    EXPECT_EQ(*VkKeyedUnarchiver::unarchiveObjectWithData(*bytes), value);
}

TEST(VkKeyedArchiverRoundTripTest, ObjectsComeBackWithTheirMembersAndIdentity) {
    auto item = std::make_shared<MonItem>();
    item->filePath = "/Users/a/Downloads/x.dmg";
    item->processName = "Safari";
    item->trojanName = "OSX/Test.A";
    item->downLoadTime = VkDate{1700000000.0};
    item->logTime = VkDate{1700000005.5};
    auto other = std::make_shared<MonItem>();
    other->filePath = "/tmp/y";
    VkArchivedValue root = VkArchivedValue::Array{item, other, item};

    auto bytes = VkKeyedArchiver::archivedDataWithRootObject(root);
    ASSERT_TRUE(bytes.ok()) << bytes.error();
    auto decoded = unarchive(*bytes);
    ASSERT_TRUE(decoded.ok()) << decoded.error();
    const VkArchivedValue::Array& items = *decoded->asArray();
    ASSERT_EQ(items.size(), 3u);
    auto back = items[0].asObject<MonItem>();
    ASSERT_TRUE(back);
    EXPECT_EQ(back->filePath, item->filePath);
    EXPECT_EQ(back->processName, item->processName);
    EXPECT_EQ(back->processPath, std::nullopt);
    EXPECT_EQ(back->trojanName, item->trojanName);
    EXPECT_EQ(back->downLoadTime, item->downLoadTime);
    EXPECT_EQ(back->logTime, item->logTime);
    EXPECT_EQ(items[1].asObject<MonItem>()->filePath, "/tmp/y");
    EXPECT_EQ(items[1].asObject<MonItem>()->logTime, std::nullopt);
    // The same object written twice is one object again after reading.
    EXPECT_EQ(items[2].asObject(), items[0].asObject());
    EXPECT_NE(items[1].asObject(), items[0].asObject());

    // The class description carries the class name the monitor uses.
    auto plist = VkPlist::parse(bytes->data(), bytes->size());
    const VkPlist::Array& objects = *plist->get("$objects")->asArray();
    const VkPlist& record = objects[*(*objects[1].get("NS.objects")->asArray())[0].asUid()];
    EXPECT_EQ(*objects[*record.get("$class")->asUid()].getString("$classname"),
              "VkFileMonLogsItem");
    EXPECT_EQ(record.get("processPath")->asUid(), 0u);  // nil is a reference to "$null"
}

TEST(VkKeyedArchiverRoundTripTest, InlineNumbersAndDollarKeysComeBack) {
    auto tail = std::make_shared<Node>();
    tail->label = "tail";
    auto head = std::make_shared<Node>();
    head->label = "head";
    head->weight = -7;
    head->flag = true;
    head->ratio = 0.125;
    head->next = tail;
    auto bytes = VkKeyedArchiver::archivedDataWithRootObject(head);
    ASSERT_TRUE(bytes.ok()) << bytes.error();
    auto decoded = unarchive(*bytes);
    ASSERT_TRUE(decoded.ok()) << decoded.error();
    auto back = decoded->asObject<Node>();
    ASSERT_TRUE(back && back->next);
    EXPECT_EQ(back->label, "head");
    EXPECT_EQ(back->weight, -7);
    EXPECT_TRUE(back->flag);
    EXPECT_EQ(back->ratio, 0.125);
    EXPECT_EQ(back->next->label, "tail");
    EXPECT_EQ(back->next->next, nullptr);
    // Numbers sit inline in the object; a member named "$class" is stored as "$$class".
    auto plist = VkPlist::parse(bytes->data(), bytes->size());
    const VkPlist& record = (*plist->get("$objects")->asArray())[1];
    EXPECT_EQ(record.get("weight")->asInt64(), -7);
    EXPECT_NE(record.get("$$class"), nullptr);
    EXPECT_TRUE(record.get("$class")->asUid().has_value());
}

TEST(VkKeyedArchiverRoundTripTest, XmlFormArchivesAreReadToo) {
    auto bytes = VkKeyedArchiver::archivedDataWithRootObject(killList());
    auto plist = VkPlist::parse(bytes->data(), bytes->size());
    std::string xml = plist->toXml();
    auto decoded =
        VkKeyedUnarchiver::unarchiveObjectWithData(std::vector<uint8_t>(xml.begin(), xml.end()));
    ASSERT_TRUE(decoded.ok()) << decoded.error();
    EXPECT_EQ(*decoded, killList());
}

TEST(VkKeyedArchiverRoundTripTest, NilRootAndManyObjectsSurvive) {
    auto nilBytes = VkKeyedArchiver::archivedDataWithRootObject(VkArchivedValue());
    ASSERT_TRUE(nilBytes.ok());
    auto nilBack = VkKeyedUnarchiver::unarchiveObjectWithData(*nilBytes);
    ASSERT_TRUE(nilBack.ok()) << nilBack.error();
    EXPECT_TRUE(nilBack->isNone());

    // More than 65536 entries: UIDs and references need more than two bytes.
    VkPlist many = VkPlist::array();
    for (int i = 0; i < 66000; ++i)
        many.append("entry " + std::to_string(i));
    auto bytes = VkKeyedArchiver::archivedDataWithRootObject(many);
    ASSERT_TRUE(bytes.ok()) << bytes.error();
    auto back = VkKeyedUnarchiver::unarchiveObjectWithData(*bytes);
    ASSERT_TRUE(back.ok()) << back.error();
    EXPECT_EQ(*back, many);
}

// ---- Refusals when writing --------------------------------------------------------------

TEST(VkKeyedArchiverWriteTest, RefusesWhatCannotBeReadBack) {
    EXPECT_FALSE(VkKeyedArchiver::archivedDataWithRootObject(VkPlist::uid(3)).ok());
    EXPECT_FALSE(VkKeyedArchiver::archivedDataWithRootObject(
                     VkArchivedValue::Array{VkArchivedValue("a"), VkArchivedValue()})
                     .ok());

    auto loop = std::make_shared<Node>();
    loop->next = loop;
    auto cyclic = VkKeyedArchiver::archivedDataWithRootObject(loop);
    EXPECT_FALSE(cyclic.ok());
    loop->next.reset();  // break the ownership cycle for the leak checker

    VkPlist deep = "leaf";
    for (size_t i = 0; i < VkKeyedArchiver::kMaxDepth + 5; ++i)
        deep = VkPlist::array({deep});
    EXPECT_FALSE(VkKeyedArchiver::archivedDataWithRootObject(deep).ok());
}

// ---- Malformed archives -----------------------------------------------------------------

class VkKeyedUnarchiverMalformedTest : public ::testing::Test {
  protected:
    // Expects the archive to be refused with a message containing part.
    void expectRefused(const std::vector<uint8_t>& bytes, const std::string& part) {
        auto decoded = unarchive(bytes);
        ASSERT_FALSE(decoded.ok()) << "accepted; expected: " << part;
        EXPECT_NE(decoded.error().find(part), std::string::npos) << decoded.error();
    }
    VkPlist top(const VkPlist& objects) {
        VkPlist t =
            VkPlist::dictionary({{"$archiver", "NSKeyedArchiver"},
                                 {"$top", VkPlist::dictionary({{"root", VkPlist::uid(1)}})}});
        t.set("$objects", objects);
        return t;
    }
};

TEST_F(VkKeyedUnarchiverMalformedTest, TruncatedBytesAreRefused) {
    for (size_t cut = 0; cut < kPlatformKillList.size(); ++cut) {
        std::vector<uint8_t> prefix(kPlatformKillList.begin(), kPlatformKillList.begin() + cut);
        EXPECT_FALSE(unarchive(prefix).ok()) << cut;
    }
}

TEST_F(VkKeyedUnarchiverMalformedTest, PlistsThatAreNoKeyedArchiveAreRefused) {
    expectRefused(killList().toBinary(), "not a keyed archive");
    VkPlist noObjects = top("x");
    expectRefused(noObjects.toBinary(), "\"$objects\"");
    VkPlist noTop = top(VkPlist::array({"$null", "x"}));
    noTop.asDictionary()->erase("$top");
    expectRefused(noTop.toBinary(), "\"$top\"");
    expectRefused(archiveOf(VkPlist::array({"$null", "x"}), "root"), "no root");
    VkPlist otherArchiver = top(VkPlist::array({"$null", "x"}));
    otherArchiver.set("$archiver", "SomethingElse");
    expectRefused(otherArchiver.toBinary(), "not a keyed archive");
}

TEST_F(VkKeyedUnarchiverMalformedTest, WrongTypesInsideAreRefused) {
    VkPlist notArray = VkPlist::dictionary({{"NS.objects", "x"}, {"$class", VkPlist::uid(2)}});
    expectRefused(archiveOf(VkPlist::array({"$null", notArray, arrayClass()})),
                  "\"NS.objects\" of object 1 is not an array");
    expectRefused(
        archiveOf(VkPlist::array({"$null",
                                  VkPlist::dictionary({{"NS.objects", VkPlist::array({"inline"})},
                                                       {"$class", VkPlist::uid(2)}}),
                                  arrayClass()})),
        "non-reference");
    // $class naming a string, "$null", nothing, or an object that is no class description.
    expectRefused(archiveOf(VkPlist::array({"$null", arrayOf({}, 2), "NSArray"})),
                  "names no class description");
    expectRefused(archiveOf(VkPlist::array({"$null", arrayOf({}, 0)})), "out of range");
    expectRefused(archiveOf(VkPlist::array({"$null", VkPlist::dictionary({{"a", "b"}})})),
                  "no class reference");
    expectRefused(archiveOf(VkPlist::array({"$null", arrayOf({}, 1)})),
                  "names no class description");
    // A raw array or a UID where an object entry belongs.
    expectRefused(archiveOf(VkPlist::array({"$null", VkPlist::array({"a"})})),
                  "neither a value nor an object");
    expectRefused(archiveOf(VkPlist::array({"$null", VkPlist::uid(1)})),
                  "neither a value nor an object");
    // Dictionaries: keys and values out of step, keys that are no strings.
    VkPlist dictClass = VkPlist::dictionary({{"$classname", "NSDictionary"}});
    expectRefused(archiveOf(VkPlist::array(
                      {"$null",
                       VkPlist::dictionary({{"NS.keys", VkPlist::array({VkPlist::uid(3)})},
                                            {"NS.objects", VkPlist::array()},
                                            {"$class", VkPlist::uid(2)}}),
                       dictClass, "k"})),
                  "1 keys but 0 values");
    expectRefused(archiveOf(VkPlist::array(
                      {"$null",
                       VkPlist::dictionary({{"NS.keys", VkPlist::array({VkPlist::uid(3)})},
                                            {"NS.objects", VkPlist::array({VkPlist::uid(3)})},
                                            {"$class", VkPlist::uid(2)}}),
                       dictClass, VkPlist::integer(4)})),
                  "key that is no string");
    VkPlist dateClass = VkPlist::dictionary({{"$classname", "NSDate"}});
    expectRefused(
        archiveOf(VkPlist::array(
            {"$null", VkPlist::dictionary({{"NS.time", "noon"}, {"$class", VkPlist::uid(2)}}),
             dateClass})),
        "NS.time");
    // nil inside a collection.
    expectRefused(archiveOf(VkPlist::array({"$null", arrayOf({0}, 2), arrayClass()})), "nil");
}

TEST_F(VkKeyedUnarchiverMalformedTest, ReferencesOutOfRangeAreRefused) {
    expectRefused(archiveOf(VkPlist::array({"$null", arrayOf({7}, 2), arrayClass()})),
                  "reference 7 is out of range");
    expectRefused(archiveOf(VkPlist::array({"$null", "x"}), VkPlist::uid(2)),
                  "reference 2 is out of range");
    expectRefused(archiveOf(VkPlist::array({"$null", arrayOf({}, 9)})), "out of range");
}

TEST_F(VkKeyedUnarchiverMalformedTest, UnknownClassesAreRefused) {
    VkPlist cls = VkPlist::dictionary({{"$classname", "NSUnheardOf"}});
    expectRefused(archiveOf(VkPlist::array(
                      {"$null", VkPlist::dictionary({{"$class", VkPlist::uid(2)}}), cls})),
                  "unknown class NSUnheardOf");
}

TEST_F(VkKeyedUnarchiverMalformedTest, ReferenceCyclesAreRefused) {
    // An array that holds itself, and two arrays that hold each other.
    expectRefused(archiveOf(VkPlist::array({"$null", arrayOf({1}, 2), arrayClass()})),
                  "reference cycle");
    expectRefused(
        archiveOf(VkPlist::array({"$null", arrayOf({2}, 3), arrayOf({1}, 3), arrayClass()})),
        "reference cycle");
    // An object whose member refers to itself, directly and through an array.
    VkPlist nodeClass = VkPlist::dictionary({{"$classname", "TestNode"}});
    expectRefused(
        archiveOf(VkPlist::array(
            {"$null", VkPlist::dictionary({{"next", VkPlist::uid(1)}, {"$class", VkPlist::uid(2)}}),
             nodeClass})),
        "reference cycle");
    expectRefused(
        archiveOf(VkPlist::array(
            {"$null", VkPlist::dictionary({{"next", VkPlist::uid(3)}, {"$class", VkPlist::uid(2)}}),
             nodeClass, arrayOf({1}, 4), arrayClass()})),
        "reference cycle");
}

TEST_F(VkKeyedUnarchiverMalformedTest, DeepNestingAndExpansionAreBounded) {
    // A chain of 5000 arrays, each holding the next: no cycle, but deeper than allowed.
    VkPlist chain = VkPlist::array({"$null", arrayClass()});
    for (uint64_t i = 2; i < 5002; ++i)
        chain.append(arrayOf({i + 1}, 1));
    chain.append("leaf");
    expectRefused(archiveOf(chain, VkPlist::uid(2)), "nested too deeply");

    // Each array holds the next one twice: 60 entries would expand to 2^60 values.
    VkPlist doubling = VkPlist::array({"$null", arrayClass()});
    for (uint64_t i = 2; i < 62; ++i)
        doubling.append(arrayOf({i + 1, i + 1}, 1));
    doubling.append("leaf");
    expectRefused(archiveOf(doubling, VkPlist::uid(2)), "size limit");

    // One 64 KiB string named 8000 times: half a gigabyte once copied.
    VkPlist wide = VkPlist::array({"$null", arrayClass(), std::string(65536, 'x')});
    VkPlist refs = VkPlist::array();
    for (int i = 0; i < 8000; ++i)
        refs.append(VkPlist::uid(2));
    wide.append(VkPlist::dictionary({{"NS.objects", refs}, {"$class", VkPlist::uid(1)}}));
    expectRefused(archiveOf(wide, VkPlist::uid(3)), "size limit");
}

TEST_F(VkKeyedUnarchiverMalformedTest, FactoriesSeeWrongMemberTypesAsErrors) {
    VkPlist nodeClass = VkPlist::dictionary({{"$classname", "TestNode"}});
    VkPlist itemClass = VkPlist::dictionary({{"$classname", "VkFileMonLogsItem"}});
    // A number where a string belongs, a string where a date belongs, a string for an int.
    expectRefused(archiveOf(VkPlist::array({"$null",
                                            VkPlist::dictionary({{"filePath", VkPlist::uid(3)},
                                                                 {"$class", VkPlist::uid(2)}}),
                                            itemClass, VkPlist::integer(5)})),
                  "\"filePath\" is not a string");
    expectRefused(archiveOf(VkPlist::array({"$null",
                                            VkPlist::dictionary({{"logTime", VkPlist::uid(3)},
                                                                 {"$class", VkPlist::uid(2)}}),
                                            itemClass, "yesterday"})),
                  "\"logTime\" is not a date");
    expectRefused(
        archiveOf(VkPlist::array(
            {"$null", VkPlist::dictionary({{"weight", "heavy"}, {"$class", VkPlist::uid(2)}}),
             nodeClass})),
        "\"weight\" is not an integer");
    // A factory that refuses its object.
    VkKeyedUnarchiver unarchiver;
    unarchiver.registerClass("TestNode", [](VkKeyedUnarchiver&) { return nullptr; });
    auto refused = unarchiver.unarchiveRootObject(archiveOf(
        VkPlist::array({"$null", VkPlist::dictionary({{"$class", VkPlist::uid(2)}}), nodeClass})));
    ASSERT_FALSE(refused.ok());
    EXPECT_NE(refused.error().find("refused"), std::string::npos) << refused.error();
    // Absent members read as nil, zero and false; the same unarchiver is usable again.
    unarchiver.registerClass("TestNode", &Node::initWithCoder);
    auto empty = unarchiver.unarchiveRootObject(archiveOf(
        VkPlist::array({"$null", VkPlist::dictionary({{"$class", VkPlist::uid(2)}}), nodeClass})));
    ASSERT_TRUE(empty.ok()) << empty.error();
    auto node = empty->asObject<Node>();
    ASSERT_TRUE(node);
    EXPECT_EQ(node->label, "");
    EXPECT_EQ(node->weight, 0);
    EXPECT_FALSE(node->flag);
    EXPECT_EQ(node->next, nullptr);
    // A factory cannot start another archive on the coder that is decoding it.
    std::string nested;
    unarchiver.registerClass("TestNode",
                             [&nested](VkKeyedUnarchiver& coder) -> std::shared_ptr<VkCodable> {
                                 auto inner = coder.unarchiveRootObject(kPlatformKillList);
                                 nested = inner.ok() ? "accepted" : inner.error();
                                 return std::make_shared<Node>();
                             });
    auto outer = unarchiver.unarchiveRootObject(archiveOf(
        VkPlist::array({"$null", VkPlist::dictionary({{"$class", VkPlist::uid(2)}}), nodeClass})));
    EXPECT_TRUE(outer.ok());
    EXPECT_NE(nested.find("already decoding"), std::string::npos) << nested;
}

TEST_F(VkKeyedUnarchiverMalformedTest, EverySingleByteCorruptionIsHandled) {
    // Each byte of the platform's file replaced by a few values: the result is either a
    // decoded value or an error with a reason, never a crash (the sanitizer build checks).
    size_t refused = 0, accepted = 0;
    for (const auto* fixture : {&kPlatformKillList, &kPlatformFileMonList}) {
        for (size_t i = 8; i < fixture->size(); ++i) {
            for (uint8_t v : {uint8_t{0x00}, uint8_t{0x01}, uint8_t{0x0F}, uint8_t{0x7F},
                              uint8_t{0x80}, uint8_t{0xFF}, uint8_t((*fixture)[i] ^ 0x10)}) {
                std::vector<uint8_t> bytes = *fixture;
                bytes[i] = v;
                auto decoded = unarchive(bytes);
                if (decoded.ok()) {
                    ++accepted;
                } else {
                    ++refused;
                    EXPECT_FALSE(decoded.error().empty());
                }
            }
        }
    }
    EXPECT_GT(refused, 0u);
    EXPECT_GT(accepted, 0u);
}

}  // namespace
