#include "platform/VkKeyedArchiver.h"

#include <algorithm>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "fakes/VkTestBytes.h"
#include "logs/VkFileMonLogsItem.h"

namespace {

// Written byte by byte as the platform's archiver lays out a kill list: an NSArray of two
// NSArrays of strings, [["d", "/Library/Foo", "bar.plist"], ["k", "Foo"]]: "$null" first, one
// class description shared by the three arrays, keys and UIDs stored once, 1-byte offsets.
const std::vector<uint8_t> kPlatformKillList = vkFromHex(
    "62706c6973743030d40102030405060708582476657273696f6e592461726368697665725424746f7058246f"
    "626a6563747312000186a05f100f4e534b657965644172636869766572d1090aaa0b0c0d0e0f101112131454"
    "726f6f74800155246e756c6cd215161718d21516191851645c2f4c6962726172792f466f6f596261722e706c"
    "697374d21a1b1c1dd215161f18516b53466f6f5a4e532e6f626a656374735624636c617373a220218006a322"
    "23245a24636c6173736e616d655824636c6173736573574e534172726179a21c1e584e534f626a656374a225"
    "26800280078003800480058008800908111a24293237494c575c5e64696e707d878c919397a2a9acaeb2bdc6"
    "ced1dadddfe1e3e5e7e900000000000001010000000000000027000000000000000000000000000000eb");

// The file monitor's list as the platform writes it: an NSMutableArray of two
// VkFileMonLogsItem records. The first names its process path through an NSMutableString
// object, the second has none (UID 0); both share the string "Safari"; four NSDate objects
// share one class description; 15 or more objects (long count form); 2-byte offsets.
const std::vector<uint8_t> kPlatformFileMonList = vkFromHex(
    "62706c6973743030d40102030405060708582476657273696f6e592461726368697665725424746f7058246f"
    "626a6563747312000186a05f100f4e534b657965644172636869766572d1090aaf10120b0c0d0e0f10111213"
    "1415161718191a1b1c54726f6f74800155246e756c6cd21d1e292ad71e1f20212223242b2c2d2e2f30315f10"
    "182f55736572732f612f446f776e6c6f6164732f782e646d6756536166617269d2251e3b32d226273c435a4f"
    "53582f546573742e41d2281e4733d226273f44d2281e4833d226274045d71e1f20212223242b342d35363738"
    "5a2f746d702f792e7a69705a4f53582f546573742e42d2281e4933d2281e4a33d2262741465a4e532e6f626a"
    "656374735624636c6173735866696c65506174685b70726f636573734e616d655b70726f6365737350617468"
    "5a74726f6a616e4e616d655c646f776e4c6f616454696d65576c6f6754696d65594e532e737472696e675a24"
    "636c6173736e616d655824636c6173736573574e532e74696d65a2393a8011800b8003800480058007800880"
    "0a80068009800d8000800e800f80108002800c5f10182f4170706c69636174696f6e732f5361666172692e61"
    "70705f100f4e534d757461626c65537472696e67584e53537472696e67584e534f626a656374564e53446174"
    "655f1011566b46696c654d6f6e4c6f67734974656d5e4e534d757461626c654172726179574e534172726179"
    "a33c3d3ea23f3ea2403ea341423e2341c4dc93800000002341c4dc939e4000002341c4dc93b20000002341c4"
    "dc93d020000000080011001a00240029003200370049004c006100660068006e00730082009d00a400a900ae"
    "00b900be00c300c800cd00dc00e700f200f700fc0101010c0113011c01280134013f014c0154015e01690172"
    "017a017d017f01810183018501870189018b018d018f01910193019501970199019b019d019f01ba01cc01d5"
    "01de01e501f90208021002140217021a021e0227023002390000000000000201000000000000004b00000000"
    "000000000000000000000242");

constexpr double kRef = VkDate::kReferenceDateOffset;

// A file-monitor record's members, in the order of its coder keys.
using Fields =
    std::tuple<std::optional<std::string>, std::optional<std::string>, std::optional<std::string>,
               std::optional<std::string>, std::optional<VkDate>, std::optional<VkDate>>;
Fields fieldsOf(const VkFileMonLogsItem& item) {
    return {item.filePath(),   item.processName(),  item.processPath(),
            item.trojanName(), item.downLoadTime(), item.logTime()};
}

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
    // The chain in one line: "label weight flag ratio" per node, "-" for a missing node.
    static std::string describe(const std::shared_ptr<Node>& n) {
        return n ? n->label + " " + std::to_string(n->weight) + " " + std::to_string(n->flag) +
                       " " + std::to_string(n->ratio) + " > " + describe(n->next)
                 : "-";
    }
};

VkPlist killList() {
    return VkPlist::array(
        {VkPlist::array({"d", "/Library/Foo", "bar.plist"}), VkPlist::array({"k", "Foo"})});
}

// An archive's top level around a hand-made "$objects" list, root at UID 1.
VkPlist archiveTop(VkPlist objects, VkPlist root = VkPlist::uid(1)) {
    VkPlist top = VkPlist::dictionary({{"$archiver", "NSKeyedArchiver"},
                                       {"$version", VkPlist::integer(100000)},
                                       {"$top", VkPlist::dictionary({{"root", root}})}});
    top.set("$objects", std::move(objects));
    return top;
}
std::vector<uint8_t> archiveOf(VkPlist objects, VkPlist root = VkPlist::uid(1)) {
    return archiveTop(std::move(objects), std::move(root)).toBinary();
}
// The same with "$null" first.
std::vector<uint8_t> objs(std::initializer_list<VkPlist> rest, uint64_t root = 1) {
    VkPlist objects = VkPlist::array({"$null"});
    for (const VkPlist& o : rest)
        objects.append(o);
    return archiveOf(objects, VkPlist::uid(root));
}

VkPlist classNamed(const char* name) {
    return VkPlist::dictionary({{"$classname", name}});
}
const VkPlist kArrayClass = VkPlist::dictionary(
    {{"$classname", "NSArray"}, {"$classes", VkPlist::array({"NSArray", "NSObject"})}});

VkPlist arrayOf(std::initializer_list<uint64_t> uids, uint64_t classUid) {
    VkPlist refs = VkPlist::array();
    for (uint64_t uid : uids)
        refs.append(VkPlist::uid(uid));
    return VkPlist::dictionary({{"NS.objects", refs}, {"$class", VkPlist::uid(classUid)}});
}

// An object of class UID 2 with the given members.
VkPlist objectWith(VkPlist::Dictionary members) {
    VkPlist object = VkPlist(std::move(members));
    object.set("$class", VkPlist::uid(2));
    return object;
}

VkResult<VkArchivedValue> unarchive(const std::vector<uint8_t>& bytes) {
    VkKeyedUnarchiver unarchiver;
    VkFileMonLogsItem::registerClass(unarchiver);
    unarchiver.registerClass("TestNode", &Node::initWithCoder);
    return unarchiver.unarchiveRootObject(bytes);
}

// The "$objects" list of archive bytes.
VkPlist::Array objectsOf(const std::vector<uint8_t>& bytes) {
    return *VkPlist::parse(bytes.data(), bytes.size())->get("$objects")->asArray();
}

TEST(VkKeyedArchiverTest, ReadsArchivesWrittenByThePlatform) {
    auto kill = VkKeyedUnarchiver::unarchiveObjectWithData(kPlatformKillList);
    ASSERT_TRUE(kill.ok()) << kill.error();
    EXPECT_EQ(*kill, killList());

    auto decoded = unarchive(kPlatformFileMonList);
    ASSERT_TRUE(decoded.ok()) << decoded.error();
    ASSERT_EQ(decoded->asArray()->size(), 2u);
    auto first = (*decoded->asArray())[0].asObject<VkFileMonLogsItem>();
    auto second = (*decoded->asArray())[1].asObject<VkFileMonLogsItem>();
    ASSERT_TRUE(first && second);
    // The first's process path is an NSMutableString object; both share "Safari".
    EXPECT_EQ(fieldsOf(*first),
              (Fields{"/Users/a/Downloads/x.dmg", "Safari", "/Applications/Safari.app",
                      "OSX/Test.A", VkDate{kRef + 700000000.0}, VkDate{kRef + 700000060.5}}));
    EXPECT_EQ(fieldsOf(*second), (Fields{"/tmp/y.zip", "Safari", std::nullopt, "OSX/Test.B",
                                         VkDate{kRef + 700000100.0}, VkDate{kRef + 700000160.25}}));

    // Mutable strings, data objects and dictionaries.
    auto mixed = VkKeyedUnarchiver::unarchiveObjectWithData(objs({
        VkPlist::dictionary({{"NS.keys", VkPlist::array({VkPlist::uid(2), VkPlist::uid(3)})},
                             {"NS.objects", VkPlist::array({VkPlist::uid(4), VkPlist::uid(6)})},
                             {"$class", VkPlist::uid(8)}}),
        "text",
        "blob",
        VkPlist::dictionary({{"NS.string", "mutable"}, {"$class", VkPlist::uid(5)}}),
        classNamed("NSMutableString"),
        VkPlist::dictionary({{"NS.data", VkPlist::Data{1, 2, 3}}, {"$class", VkPlist::uid(7)}}),
        classNamed("NSMutableData"),
        VkPlist::dictionary(
            {{"$classname", "NSMutableDictionary"},
             {"$classes", VkPlist::array({"NSMutableDictionary", "NSDictionary", "NSObject"})}}),
    }));
    ASSERT_TRUE(mixed.ok()) << mixed.error();
    EXPECT_EQ(*mixed, VkPlist::dictionary(
                          {{"text", "mutable"}, {"blob", VkPlist(VkPlist::Data{1, 2, 3})}}));
}

TEST(VkKeyedArchiverTest, PlainValuesComeBackEqualInBinaryAndXmlForm) {
    VkPlist many = VkPlist::array();  // more than 65536 entries: references of 3+ bytes
    for (int i = 0; i < 66000; ++i)
        many.append("entry " + std::to_string(i));
    const VkArchivedValue values[] = {
        killList(),
        VkPlist::dictionary({
            {"text", "h\xC3\xA9llo / w\xC3\xB6rld"},
            {"empty", ""},
            {"negative", VkPlist::integer(-42)},
            {"big", VkPlist::integer(5000000000LL)},
            {"real", VkPlist::real(2.5)},
            {"yes", VkPlist::boolean(true)},
            {"no", VkPlist::boolean(false)},
            {"bytes", VkPlist(VkPlist::Data{0, 255, 7})},
            {"when", VkPlist(VkDate{1700000000.25})},
            {"nested", VkPlist::array({VkPlist::array(), VkPlist::dictionary({{"$odd", "k"}})})},
        }),
        VkArchivedValue(),
        many,
    };
    for (const VkArchivedValue& value : values) {
        auto bytes = VkKeyedArchiver::archivedDataWithRootObject(value);
        ASSERT_TRUE(bytes.ok()) << bytes.error();
        std::string xml = VkPlist::parse(bytes->data(), bytes->size())->toXml();
        for (const auto& form : {*bytes, std::vector<uint8_t>(xml.begin(), xml.end())}) {
            auto decoded = VkKeyedUnarchiver::unarchiveObjectWithData(form);
            ASSERT_TRUE(decoded.ok()) << decoded.error();
            EXPECT_EQ(*decoded, value);
        }
    }

    // The kill list is laid out as the platform's: a keyed archive whose three arrays share
    // one class description, and equal strings stored once.
    auto bytes = *VkKeyedArchiver::archivedDataWithRootObject(
        VkPlist::array({killList(), VkPlist::array({"k", "Foo"})}));
    auto plist = VkPlist::parse(bytes.data(), bytes.size());
    EXPECT_EQ(std::string(bytes.begin(), bytes.begin() + 8), "bplist00");
    EXPECT_EQ(*plist->getString("$archiver"), "NSKeyedArchiver");
    EXPECT_EQ(plist->get("$version")->asInt64(), 100000);
    EXPECT_EQ(plist->get("$top")->get("root")->asUid(), 1u);
    const VkPlist::Array objects = objectsOf(bytes);
    EXPECT_EQ(objects[0], VkPlist("$null"));
    EXPECT_EQ(std::count_if(objects.begin(), objects.end(),
                            [](const VkPlist& entry) { return entry.get("$classname"); }),
              1);
    EXPECT_EQ(std::count(objects.begin(), objects.end(), VkPlist("Foo")), 1);
    EXPECT_EQ(objects[*objects[1].get("$class")->asUid()], kArrayClass);
}

TEST(VkKeyedArchiverTest, ObjectsComeBackWithTheirMembersAndIdentity) {
    auto head = std::make_shared<Node>();
    head->label = "head";
    head->weight = -7;
    head->flag = true;
    head->ratio = 0.125;
    head->next = std::make_shared<Node>();
    head->next->label = "tail";
    auto other = std::make_shared<Node>();
    auto bytes =
        VkKeyedArchiver::archivedDataWithRootObject(VkArchivedValue::Array{head, other, head});
    ASSERT_TRUE(bytes.ok()) << bytes.error();
    auto decoded = unarchive(*bytes);
    ASSERT_TRUE(decoded.ok()) << decoded.error();
    const VkArchivedValue::Array& nodes = *decoded->asArray();
    ASSERT_EQ(nodes.size(), 3u);
    EXPECT_EQ(Node::describe(nodes[0].asObject<Node>()),
              "head -7 1 0.125000 > tail 0 0 0.000000 > -");
    EXPECT_EQ(Node::describe(nodes[1].asObject<Node>()), " 0 0 0.000000 > -");
    // The same object written twice is one object again after reading.
    EXPECT_EQ(nodes[2].asObject(), nodes[0].asObject());
    EXPECT_NE(nodes[1].asObject(), nodes[0].asObject());

    // Numbers sit inline in the object; nil is a reference to "$null"; a member named
    // "$class" is stored as "$$class".
    const VkPlist::Array objects = objectsOf(*bytes);
    auto stored = [&](size_t i) {
        return objects[*(*objects[1].get("NS.objects")->asArray())[i].asUid()];
    };
    ASSERT_TRUE(stored(0).get("$class")->asUid());
    EXPECT_EQ(*objects[*stored(0).get("$class")->asUid()].getString("$classname"), "TestNode");
    EXPECT_EQ(stored(0).get("weight")->asInt64(), -7);
    EXPECT_NE(stored(0).get("$$class"), nullptr);
    EXPECT_EQ(stored(1).get("next")->asUid(), 0u);
}

TEST(VkKeyedArchiverTest, RefusesToWriteWhatCannotBeReadBack) {
    auto loop = std::make_shared<Node>();
    loop->next = loop;
    VkPlist deep = "leaf";
    for (size_t i = 0; i < VkKeyedArchiver::kMaxDepth + 5; ++i)
        deep = VkPlist::array({deep});
    for (const VkArchivedValue& value :
         {VkArchivedValue(VkPlist::uid(3)),
          VkArchivedValue(VkArchivedValue::Array{VkArchivedValue("a"), VkArchivedValue()}),
          VkArchivedValue(loop), VkArchivedValue(deep)})
        EXPECT_FALSE(VkKeyedArchiver::archivedDataWithRootObject(value).ok());
    loop->next.reset();  // break the ownership cycle for the leak checker
}

TEST(VkKeyedUnarchiverMalformedTest, RefusesWithAReason) {
    VkPlist noTop = archiveTop(VkPlist::array({"$null", "x"}));
    noTop.asDictionary()->erase("$top");
    VkPlist otherArchiver = archiveTop(VkPlist::array({"$null", "x"}));
    otherArchiver.set("$archiver", "SomethingElse");
    const VkPlist dictClass = classNamed("NSDictionary");
    const VkPlist nodeClass = classNamed("TestNode");
    const VkPlist itemClass = classNamed("VkFileMonLogsItem");
    const VkPlist keyAt3 = VkPlist::array({VkPlist::uid(3)});
    auto dictOf = [](VkPlist keys, VkPlist values) {
        return objectWith({{"NS.keys", keys}, {"NS.objects", values}});
    };
    const struct {
        std::vector<uint8_t> bytes;
        const char* reason;
    } cases[] = {
        // No keyed archive at all.
        {killList().toBinary(), "not a keyed archive"},
        {otherArchiver.toBinary(), "not a keyed archive"},
        {archiveOf("x"), "\"$objects\""},
        {noTop.toBinary(), "\"$top\""},
        {archiveOf(VkPlist::array({"$null", "x"}), "root"), "no root"},
        // Wrong types inside.
        {objs({objectWith({{"NS.objects", "x"}}), kArrayClass}),
         "\"NS.objects\" of object 1 is not an array"},
        {objs({objectWith({{"NS.objects", VkPlist::array({"inline"})}}), kArrayClass}),
         "non-reference"},
        {objs({arrayOf({}, 2), "NSArray"}), "names no class description"},
        {objs({arrayOf({}, 1)}), "names no class description"},
        {objs({arrayOf({}, 0)}), "out of range"},
        {objs({VkPlist::dictionary({{"a", "b"}})}), "no class reference"},
        {objs({VkPlist::array({"a"})}), "neither a value nor an object"},
        {objs({VkPlist::uid(1)}), "neither a value nor an object"},
        {objs({dictOf(keyAt3, VkPlist::array()), dictClass, "k"}), "1 keys but 0 values"},
        {objs({dictOf(keyAt3, keyAt3), dictClass, VkPlist::integer(4)}), "key that is no string"},
        {objs({objectWith({{"NS.time", "noon"}}), classNamed("NSDate")}), "NS.time"},
        {objs({arrayOf({0}, 2), kArrayClass}), "nil"},
        // References out of range, unknown classes.
        {objs({arrayOf({7}, 2), kArrayClass}), "reference 7 is out of range"},
        {objs({"x"}, 2), "reference 2 is out of range"},
        {objs({arrayOf({}, 9)}), "out of range"},
        {objs({objectWith({}), classNamed("NSUnheardOf")}), "unknown class NSUnheardOf"},
        // Cycles: an array holding itself, two arrays holding each other, an object's member
        // referring to the object directly and through an array.
        {objs({arrayOf({1}, 2), kArrayClass}), "reference cycle"},
        {objs({arrayOf({2}, 3), arrayOf({1}, 3), kArrayClass}), "reference cycle"},
        {objs({objectWith({{"next", VkPlist::uid(1)}}), nodeClass}), "reference cycle"},
        {objs({objectWith({{"next", VkPlist::uid(3)}}), nodeClass, arrayOf({1}, 4), kArrayClass}),
         "reference cycle"},
        // Members of the wrong type, as the factories see them.
        {objs({objectWith({{"filePath", VkPlist::uid(3)}}), itemClass, VkPlist::integer(5)}),
         "\"filePath\" is not a string"},
        {objs({objectWith({{"logTime", VkPlist::uid(3)}}), itemClass, "yesterday"}),
         "\"logTime\" is not a date"},
        {objs({objectWith({{"weight", "heavy"}}), nodeClass}), "\"weight\" is not an integer"},
    };
    for (const auto& c : cases) {
        auto decoded = unarchive(c.bytes);
        ASSERT_FALSE(decoded.ok()) << "accepted; expected: " << c.reason;
        EXPECT_NE(decoded.error().find(c.reason), std::string::npos) << decoded.error();
    }
}

TEST(VkKeyedUnarchiverMalformedTest, DeepNestingAndExpansionAreBounded) {
    // A chain of 5000 arrays, each holding the next: no cycle, but deeper than allowed. Each
    // array holding the next twice: 60 entries would expand to 2^60 values. One 64 KiB string
    // named 8000 times: half a gigabyte once copied.
    VkPlist chain = VkPlist::array({"$null", kArrayClass});
    for (uint64_t i = 2; i < 5002; ++i)
        chain.append(arrayOf({i + 1}, 1));
    chain.append("leaf");
    VkPlist doubling = VkPlist::array({"$null", kArrayClass});
    for (uint64_t i = 2; i < 62; ++i)
        doubling.append(arrayOf({i + 1, i + 1}, 1));
    doubling.append("leaf");
    VkPlist wide = VkPlist::array({"$null", kArrayClass, std::string(65536, 'x')});
    VkPlist refs = VkPlist::array();
    for (int i = 0; i < 8000; ++i)
        refs.append(VkPlist::uid(2));
    wide.append(VkPlist::dictionary({{"NS.objects", refs}, {"$class", VkPlist::uid(1)}}));
    const struct {
        VkPlist objects;
        uint64_t root;
        const char* reason;
    } cases[] = {
        {chain, 2, "nested too deeply"}, {doubling, 2, "size limit"}, {wide, 3, "size limit"}};
    for (const auto& c : cases) {
        auto decoded = unarchive(archiveOf(c.objects, VkPlist::uid(c.root)));
        ASSERT_FALSE(decoded.ok()) << c.reason;
        EXPECT_NE(decoded.error().find(c.reason), std::string::npos) << decoded.error();
    }
}

TEST(VkKeyedUnarchiverMalformedTest, FactoriesRefuseReadAbsentMembersAndCannotNest) {
    const auto bytes = objs({objectWith({}), classNamed("TestNode")});
    VkKeyedUnarchiver unarchiver;
    unarchiver.registerClass("TestNode", [](VkKeyedUnarchiver&) { return nullptr; });
    auto refused = unarchiver.unarchiveRootObject(bytes);
    ASSERT_FALSE(refused.ok());
    EXPECT_NE(refused.error().find("refused"), std::string::npos) << refused.error();
    // Absent members read as nil, zero and false; the same unarchiver is usable again.
    unarchiver.registerClass("TestNode", &Node::initWithCoder);
    auto empty = unarchiver.unarchiveRootObject(bytes);
    ASSERT_TRUE(empty.ok()) << empty.error();
    EXPECT_EQ(Node::describe(empty->asObject<Node>()), " 0 0 0.000000 > -");
    // A factory cannot start another archive on the coder that is decoding it.
    std::string nested;
    unarchiver.registerClass("TestNode",
                             [&nested](VkKeyedUnarchiver& coder) -> std::shared_ptr<VkCodable> {
                                 auto inner = coder.unarchiveRootObject(kPlatformKillList);
                                 nested = inner.ok() ? "accepted" : inner.error();
                                 return std::make_shared<Node>();
                             });
    EXPECT_TRUE(unarchiver.unarchiveRootObject(bytes).ok());
    EXPECT_NE(nested.find("already decoding"), std::string::npos) << nested;
}

TEST(VkKeyedUnarchiverMalformedTest, EveryTruncationAndSingleByteCorruptionIsHandled) {
    for (size_t cut = 0; cut < kPlatformKillList.size(); ++cut) {
        std::vector<uint8_t> prefix(kPlatformKillList.begin(), kPlatformKillList.begin() + cut);
        EXPECT_FALSE(unarchive(prefix).ok()) << cut;
    }
    // Each byte of the platform's files replaced by a few values: the result is either a
    // decoded value or an error with a reason, never a crash (the sanitizer build checks).
    size_t refused = 0, accepted = 0;
    for (const auto* fixture : {&kPlatformKillList, &kPlatformFileMonList}) {
        for (size_t i = 8; i < fixture->size(); ++i) {
            for (uint8_t v : {uint8_t{0x00}, uint8_t{0x01}, uint8_t{0x0F}, uint8_t{0x7F},
                              uint8_t{0x80}, uint8_t{0xFF}, uint8_t((*fixture)[i] ^ 0x10)}) {
                std::vector<uint8_t> bytes = *fixture;
                bytes[i] = v;
                auto decoded = unarchive(bytes);
                decoded.ok() ? ++accepted : ++refused;
                EXPECT_TRUE(decoded.ok() || !decoded.error().empty());
            }
        }
    }
    EXPECT_GT(refused, 0u);
    EXPECT_GT(accepted, 0u);
}

}  // namespace
