#include <gtest/gtest.h>

#include "VelmorAttributes.h"
#include "VelmorManager.h"

namespace {

VelmorDictionary required(std::string name = "Keys", std::string model = "K-1", std::string manufacturer = "Acme")
{
    return VelmorDictionary {{"name", VelmorValue(name)}, {"model", VelmorValue(model)},
                             {"manufacturer", VelmorValue(manufacturer)}};
}

std::shared_ptr<VelmorAttributes> make(const VelmorDictionary& dictionary)
{
    return VelmorAttributes::initWithDictionary(&dictionary);
}

} // namespace

TEST(AttributesTest, DictionaryInputRules)
{
    EXPECT_EQ(VelmorAttributes::initWithDictionary(nullptr), nullptr);
    EXPECT_EQ(make(VelmorDictionary {{"name", VelmorValue("only")}}), nullptr);
    EXPECT_NE(make(required("", "", "")), nullptr);

    // The plain key wins, even with a value of the wrong type.
    auto wrongPlain = required();
    wrongPlain.setObjectForKey(VelmorValue(std::int64_t {5}), "name");
    wrongPlain.setObjectForKey(VelmorValue("Long"), VelmorEventSourceNameKey);
    EXPECT_EQ(make(wrongPlain), nullptr);
    auto both = required("Plain");
    both.setObjectForKey(VelmorValue("Long"), VelmorEventSourceNameKey);
    EXPECT_EQ(make(both)->name(), "Plain");

    // Long keys alone are read.
    VelmorDictionary longOnly {{std::string(VelmorEventSourceNameKey), VelmorValue("N")},
                               {std::string(VelmorEventSourceModelKey), VelmorValue("M")},
                               {std::string(VelmorEventSourceManufacturerKey), VelmorValue("F")},
                               {std::string(VelmorEventSourceIndexKey), VelmorValue(std::uint64_t {2})}};
    auto fromLong = make(longOnly);
    ASSERT_NE(fromLong, nullptr);
    EXPECT_EQ(fromLong->model(), "M");
    EXPECT_EQ(fromLong->index(), 2u);

    auto badIndex = required();
    badIndex.setObjectForKey(VelmorValue(VelmorArray {}), "index");
    EXPECT_EQ(make(badIndex), nullptr);
    auto textIndex = required();
    textIndex.setObjectForKey(VelmorValue("3"), "index");
    EXPECT_EQ(make(textIndex), nullptr);
    auto signedIndex = required();
    signedIndex.setObjectForKey(VelmorValue(std::int64_t {4}), "index");
    EXPECT_EQ(make(signedIndex)->index(), 4u);
    EXPECT_EQ(make(required())->index(), 0u);

    auto badID = required();
    badID.setObjectForKey(VelmorValue("12"), "uniqueID");
    EXPECT_EQ(make(badID), nullptr);
    auto badIdentifier = required();
    badIdentifier.setObjectForKey(VelmorValue(std::int64_t {1}), "identifier");
    EXPECT_EQ(make(badIdentifier), nullptr);
}

TEST(AttributesTest, DictionaryFormRoundTripsAndWritesLongKeysOnly)
{
    auto plain = make(required());
    const VelmorDictionary form = plain->dictionaryRepresentation();
    EXPECT_EQ(form.count(), 4u);
    EXPECT_FALSE(form.containsKey("name"));
    ASSERT_TRUE(form.containsKey(VelmorEventSourceIndexKey));
    EXPECT_TRUE(form.objectForKey(VelmorEventSourceIndexKey)->isUnsignedNumber());
    EXPECT_TRUE(make(form)->isEqual(*plain));

    auto full = make(required());
    full->setUniqueID(-7);
    full->setIndex(3);
    full->setIdentifier("");
    auto again = make(full->dictionaryRepresentation());
    ASSERT_NE(again, nullptr);
    EXPECT_TRUE(again->isEqual(*full));
    EXPECT_EQ(again->uniqueID(), -7);
    EXPECT_TRUE(again->isLocal());
}

TEST(AttributesTest, EqualityRules)
{
    auto a = make(required());
    auto b = make(required());
    EXPECT_TRUE(a->isEqual(*b));
    b->setUniqueID(0);
    EXPECT_TRUE(a->isEqual(*b));  // null unique ID equals 0
    EXPECT_EQ(a->hash(), b->hash());
    b->setIndex(1);
    EXPECT_FALSE(a->isEqual(*b));  // 0 and 1 differ here
    auto c = make(required());
    c->setName(std::nullopt);
    auto d = make(required());
    d->setName("");
    EXPECT_FALSE(c->isEqual(*d));
    EXPECT_TRUE(a->isEqual(std::static_pointer_cast<const VelmorRootObject>(a)));
    EXPECT_FALSE(a->isEqual(std::shared_ptr<const VelmorRootObject>()));
}

namespace {
// Applications derive their own attributes to carry more; equality looks at the class too.
class StudioAttributes : public VelmorAttributes {
public:
    static std::shared_ptr<StudioAttributes> make() { return std::shared_ptr<StudioAttributes>(new StudioAttributes); }
};
class RackAttributes : public StudioAttributes {
public:
    static std::shared_ptr<RackAttributes> make() { return std::shared_ptr<RackAttributes>(new RackAttributes); }
};
} // namespace

TEST(AttributesTest, EqualityAsksForThisClassOrOneDerivedFromIt)
{
    auto plain = VelmorAttributes::init();
    auto studio = StudioAttributes::make();
    auto rack = RackAttributes::make();
    ASSERT_TRUE(plain->isEqual(*VelmorAttributes::init()));
    for (const auto& other : {studio, std::shared_ptr<StudioAttributes>(rack)}) {
        other->setName(plain->name());
        other->setModel(plain->model());
        other->setManufacturer(plain->manufacturer());
    }
    EXPECT_TRUE(plain->isEqual(*studio));
    EXPECT_TRUE(plain->isEqual(std::shared_ptr<const VelmorRootObject>(rack)));
    EXPECT_TRUE(studio->isEqual(*rack));
    EXPECT_FALSE(studio->isEqual(*plain));
    EXPECT_FALSE(studio->isEqual(std::shared_ptr<const VelmorRootObject>(plain)));
    EXPECT_FALSE(rack->isEqual(*studio));
    EXPECT_FALSE(rack->isEqual(*RackAttributes::make()));  // same class, fields still compared
}

TEST(AttributesTest, CopiesFollowTheDictionaryRules)
{
    auto full = make(required());
    full->setUniqueID(42);
    full->setIndex(2);
    full->setIdentifier("id");

    auto nameOnly = full->attributesWithOptions(0);
    ASSERT_NE(nameOnly, nullptr);
    EXPECT_EQ(nameOnly->name(), "Keys");
    EXPECT_EQ(nameOnly->model(), std::nullopt);
    EXPECT_EQ(nameOnly->uniqueID(), std::nullopt);
    EXPECT_EQ(nameOnly->index(), 0u);
    EXPECT_FALSE(nameOnly->isLocal());
    EXPECT_EQ(nameOnly->attributesbyReplacingIndexWith(1), nullptr);

    auto kept = full->attributesWithOptions(VelmorAttributesOptionManufacturer | VelmorAttributesOptionIdentifier | 0x100);
    EXPECT_EQ(kept->manufacturer(), "Acme");
    EXPECT_EQ(kept->identifier(), "id");
    EXPECT_EQ(kept->model(), std::nullopt);

    auto unnamed = full->attributesByReplacingNameWith(std::nullopt);
    ASSERT_NE(unnamed, nullptr);
    EXPECT_EQ(unnamed->name(), std::nullopt);
    EXPECT_EQ(unnamed->copy(), nullptr);
    EXPECT_EQ(full->name(), "Keys");  // the receiver is unchanged

    auto reindexed = full->attributesbyReplacingIndexWith(5);
    EXPECT_EQ(reindexed->index(), 5u);
    EXPECT_EQ(full->index(), 2u);
}

TEST(AttributesTest, TextForms)
{
    auto a = make(required("N", "D", "M"));
    EXPECT_EQ(a->descriptiveString(), "N ( M D )");
    a->setModel("");
    EXPECT_EQ(a->descriptiveString(), "N ( M )");
    a->setManufacturer(std::nullopt);
    EXPECT_EQ(a->descriptiveString(), "N");
    a->setName("");
    a->setManufacturer("M");
    a->setModel("D");
    EXPECT_EQ(a->descriptiveString(), "M D");
    a->setModel(std::nullopt);
    EXPECT_EQ(a->descriptiveString(), "M");
    a->setManufacturer("");
    a->setModel("D");
    EXPECT_EQ(a->descriptiveString(), "D");
    a->setModel(std::nullopt);
    a->setUniqueID(-3);
    EXPECT_EQ(a->descriptiveString(), "Device ID#-3");

    auto b = make(required("Keys", "K-1", "Acme"));
    const std::string text = b->description();
    EXPECT_EQ(text.rfind("{VelmorAttributes <0x", 0), 0u) << text;
    EXPECT_NE(text.find(">: Acme K-1 \"Keys\" #n/a (uid:n/a i:0)}"), std::string::npos) << text;
    b->setIdentifier("x");
    b->setUniqueID(9);
    b->setIndex(2);
    EXPECT_NE(b->description().find("#x (uid:9 i:2)}"), std::string::npos);
}
