// What damaged memory does to those who use a table: whoever looks gets what was written, or hears
// of damage. Nobody gets anything else, crashes, or waits.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <random>
#include <set>

#include "platform/tables/private/Geometry.h"
#include "platform/tables/private/Seal.h"
#include "tests/unit/platform/tables/TableFixture.h"

namespace {

using namespace TablesTest;

constexpr std::size_t page = Geometry::pageSize;

TableShape damagedShape() {
   TableShape of = shape();
   of.maxRecords = 2000;
   of.journalEntries = 16;
   return of;
}

/// A populated table whose file can be damaged and put right again.
class Damage : public TableFixture {
protected:
   Damage() {
      {
         TableMount writing(directory, "table", writer(damagedShape()));
         for (std::uint32_t key = 0; key < 460; ++key) {
            _put(writing, key);
         }
         for (std::uint32_t key = 0; key < 120; key += 3) {
            del(writing, key);
            model[key].reset();
         }
         for (std::uint32_t key = 0; key < 30; key += 3) {
            _put(writing, key);
         }
         EXPECT_FALSE(reads(writing, model));
         EXPECT_GT(writing.audit().freeSlots, 0U);
         EXPECT_GT(writing.audit().tombstones, 0U);
         EXPECT_EQ(writing.audit().problems, std::vector<std::string>());
      }
      original = content("table.tbl");
      _fd = ::open(file("table.tbl").c_str(), O_RDWR);
   }
   ~Damage() override { ::close(_fd); }

   static Bytes valueOf(std::uint32_t key) {
      Bytes value(key % 13, static_cast<std::uint8_t>(key));
      return value;
   }

   void patch(std::size_t offset, const std::string& with) {
      ASSERT_EQ(::pwrite(_fd, with.data(), with.size(), static_cast<off_t>(offset)),
                static_cast<ssize_t>(with.size()));
   }
   void restore() { patch(0, original); }

   /// Records by key; the keys are small numbers.
   static constexpr std::uint32_t keys = 500;
   using Model = std::array<std::optional<Bytes>, keys>;
   static std::size_t sizeOf(const Model& records) {
      return static_cast<std::size_t>(std::count_if(
         records.begin(), records.end(), [](const auto& record) { return record.has_value(); }));
   }
   static bool isRight(const std::optional<std::size_t>& size, const Words& record,
                       const std::optional<Bytes>& expected) {
      return size.has_value() == expected.has_value() &&
             (!size || (*size == expected->size() &&
                        std::equal(expected->begin(), expected->end(),
                                   reinterpret_cast<const std::uint8_t*>(record.data()))));
   }

   enum class Result { right, damaged, wrong };

   template <typename Function>
   Result resultOf(Function&& isRight) {
      try {
         return isRight() ? Result::right : Result::wrong;
      } catch (const CorruptionException&) {
         return Result::damaged;
      }
   }

   /// Uses `mount` in every way that reads. Returns whether it heard of damage.
   bool reads(TableMount& mount, const Model& expected,
              const std::set<std::uint32_t>& uncertain = {}) {
      bool damaged = false;
      const auto note = [&](Result result, const char* what) {
         damaged = damaged || result == Result::damaged;
         if (result == Result::wrong) {
            ++wrong;
            ADD_FAILURE() << what << " is silently wrong after " << trace;
         }
      };
      Words record(mount.recordWords());
      Words key(mount.keyWords());
      for (std::uint32_t number = 0; number < keys; ++number) {
         if (uncertain.contains(number)) {
            continue;
         }
         note(resultOf([&] {
                 std::array<std::uint8_t, 4> bytesOfKey;
                 std::memcpy(bytesOfKey.data(), &number, sizeof number);
                 return isRight(mount.get(bytesOfKey, record), record, expected[number]);
              }),
              "get()");
      }
      note(resultOf([&] {
              std::size_t seen = 0;
              std::uint32_t position = 0;
              while (const std::optional<std::size_t> size = mount.next(position, key, record)) {
                 ++seen;
                 const std::uint32_t found = number(key);
                 if (!uncertain.contains(found) &&
                     (found >= keys || !isRight(size, record, expected[found]))) {
                    return false;
                 }
              }
              return !uncertain.empty() || seen == sizeOf(expected);
           }),
           "next()");
      note(resultOf([&] { return !uncertain.empty() || mount.count() == sizeOf(expected); }),
           "count()");
      note(resultOf([&] {
              (void)mount.arm();
              (void)changes(mount);
              return true;
           }),
           "nextChange()");
      return damaged;
   }

   /// Mounts the damaged file for reading and for writing.
   void atRest(const std::string& what) {
      trace = what + " at rest";
      bool damaged = false;
      bool named = false;
      ++damages;
      try {
         TableMount reading(directory, "table", reader(damagedShape()));
         damaged = reads(reading, model);
         named = !reading.audit().problems.empty();
      } catch (const CorruptionException&) {
         damaged = true;
         named = true;
      }
      try {
         TableMount writing(directory, "table", writer(damagedShape()));
         EXPECT_FALSE(damaged) << "a writer mounted a damaged table after " << trace;
         EXPECT_FALSE(named) << trace;
         EXPECT_EQ(writing.audit().problems, std::vector<std::string>());
         Model now = model;
         for (std::uint32_t key = 0; key < keys - 1; key += 7) {
            writing.put(bytes(key), bytes(key));
            now[key] = bytes(key);
            del(writing, key + 1);
            now[key + 1].reset();
         }
         EXPECT_FALSE(reads(writing, now)) << trace;
      } catch (const CorruptionException& error) {
         ++refusals;
         EXPECT_THAT(error.what(), testing::HasSubstr("corrupted: ")) << trace;
      }
      restore();
   }

   /// Damages the file under a reader and a writer that have it mounted.
   void mounted(const std::string& what, const std::function<void()>& damage) {
      trace = what + " while mounted";
      TableMount writing(directory, "table", writer(damagedShape()));
      TableMount reading(directory, "table", reader(damagedShape()));
      damage();
      reads(reading, model);
      Model now = model;
      std::set<std::uint32_t> uncertain;
      for (const std::uint32_t key : {0U, 1U, 3U, 33U, 66U, 119U, 470U, 480U, 490U, 200U, 201U}) {
         try {
            if (key % 2 == 1) {
               del(writing, key);
               now[key].reset();
            } else {
               writing.put(bytes(key), bytes(key));
               now[key] = bytes(key);
            }
         } catch (const CorruptionException&) {
            uncertain.insert(key); // one or the other
         }
      }
      reads(reading, now, uncertain);
      reads(writing, now, uncertain);
      try {
         (void)reading.audit();
         (void)writing.audit();
      } catch (const CorruptionException&) {
      }
   }

   /// Both ways.
   void damage(const std::string& what, std::size_t offset, const std::string& with) {
      if (original.compare(offset, with.size(), with) == 0) {
         return;
      }
      patch(offset, with);
      atRest(what);
      mounted(what, [&] { patch(offset, with); });
      restore();
   }

   void flipEachBit(const std::string& what, std::size_t offset, std::size_t size) {
      for (std::size_t bit = 0; bit < size * 8; bit += bitStep) {
         std::string byte(1, original[offset + bit / 8]);
         byte[0] = static_cast<char>(byte[0] ^ 1 << bit % 8);
         damage(what + " bit " + std::to_string(bit), offset + bit / 8, byte);
      }
   }

   // Sanitizers look for what a few tell as well as all.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
   static constexpr std::size_t bitStep = 7;
#else
   static constexpr std::size_t bitStep = 1;
#endif

   std::size_t slotOf(std::size_t slot) const {
      return geometry.slotsOffset + slot * geometry.slotStride;
   }

   const Geometry geometry{damagedShape()};
   Model model;
   std::string original;
   std::string trace;
   unsigned wrong = 0;
   unsigned damages = 0;
   unsigned refusals = 0; // to mount it for writing

private:
   void _put(TableMount& mount, std::uint32_t key) {
      mount.put(bytes(key), valueOf(key));
      model[key] = valueOf(key);
   }
   int _fd = -1;
};

TEST_F(Damage, OfTheHeaderIsFoundAtTheMount) {
   for (std::size_t bit = 0; bit < 144 * 8; ++bit) {
      std::string byte(1, original[bit / 8]);
      byte[0] = static_cast<char>(byte[0] ^ 1 << bit % 8);
      patch(bit / 8, byte);
      for (const bool writes : {false, true}) {
         const TableMount::Options options =
            writes ? writer(damagedShape()) : reader(damagedShape());
         EXPECT_THAT(errorOf([&] { const TableMount mount(directory, "table", options); }),
                     testing::StartsWith("corrupted: shared table 'table' cannot be used: "));
      }
   }
   restore();
}

TEST_F(Damage, OfASingleBitOfAControlWordIsNeverTakenForTheTruth) {
   for (std::size_t word = 0; word < 9; ++word) {
      flipEachBit("control word " + std::to_string(word), page + 64 + word * 8, 8);
   }
   EXPECT_EQ(refusals, damages);
}

TEST_F(Damage, OfTheLockAndTheUnusedBytesBesideItIsPutInOrder) {
   flipEachBit("the lock", page, 8);
   flipEachBit("unused bytes", page + 56, 8);
   EXPECT_EQ(refusals, 0U);
}

TEST_F(Damage, OfASingleBitOfTheJournalIsNeverTakenForTheTruth) {
   for (const std::size_t entry : {0U, 7U, 15U}) {
      flipEachBit("journal entry " + std::to_string(entry),
                  Geometry::journalOffset + entry * geometry.journalStride, geometry.journalStride);
   }
   EXPECT_GT(refusals, 2U * 8 * 8 / bitStep);
}

TEST_F(Damage, OfASingleBitOfTheIndexIsNeverTakenForTheTruth) {
   for (const std::size_t entry : {0U, 1U, 2U, 100U, 511U, 1023U}) {
      flipEachBit("index entry " + std::to_string(entry), geometry.indexOffset[0] + entry * 8, 8);
      flipEachBit("index entry " + std::to_string(entry), geometry.indexOffset[1] + entry * 8, 8);
   }
   EXPECT_GE(refusals, 6U * 64 / bitStep); // the region in use
}

TEST_F(Damage, OfASingleBitOfARecordIsNeverTakenForTheTruth) {
   for (const std::size_t slot : {60U, 119U, 459U, 460U}) {
      flipEachBit("slot " + std::to_string(slot), slotOf(slot), geometry.slotStride);
   }
   EXPECT_GE(refusals, 2U * 64 * 5 / bitStep);
}

TEST_F(Damage, OfWholeWordsIsNeverTakenForTheTruth) {
   std::vector<std::size_t> offsets;
   for (std::size_t word = 0; word < 10; ++word) {
      offsets.push_back(page + 64 + word * 8);
   }
   for (std::size_t word = 0; word < geometry.journalEntries * geometry.journalStride / 8; ++word) {
      offsets.push_back(Geometry::journalOffset + word * 8);
   }
   for (std::size_t word = 0; word < 1024; word += 17) {
      offsets.push_back(geometry.indexOffset[0] + word * 8);
      offsets.push_back(geometry.indexOffset[1] + word * 8);
   }
   for (const std::size_t slot : {0U, 60U, 119U, 200U, 459U}) {
      for (std::size_t word = 0; word < geometry.slotStride / 8; ++word) {
         offsets.push_back(slotOf(slot) + word * 8);
      }
   }
   for (const std::size_t offset : offsets) {
      for (const char filling : {'\0', '\xFF'}) {
         damage("filling a word at " + std::to_string(offset), offset, std::string(8, filling));
      }
   }
}

TEST_F(Damage, OfWholePagesIsNeverTakenForTheTruth) {
   for (std::size_t offset = page; offset < slotOf(470); offset += page) {
      for (const char filling : {'\0', '\xFF'}) {
         damage("filling the page at " + std::to_string(offset), offset,
                std::string(page, filling));
      }
   }
   EXPECT_GT(refusals, 10U);
}

TEST_F(Damage, OfPagesInEachOthersPlaceIsNeverTakenForTheTruth) {
   std::vector<std::size_t> pages = {1,
                                     2,
                                     geometry.indexOffset[0] / page,
                                     geometry.indexOffset[0] / page + 1,
                                     geometry.indexOffset[1] / page,
                                     geometry.indexOffset[1] / page + 1};
   for (std::size_t at = geometry.slotsOffset; at < slotOf(460); at += page) {
      pages.push_back(at / page);
   }
   for (std::size_t i = 0; i < pages.size(); ++i) {
      for (std::size_t j = i + 1; j < pages.size(); ++j) {
         const std::string first = original.substr(pages[i] * page, page);
         const std::string second = original.substr(pages[j] * page, page);
         if (first == second) {
            continue;
         }
         const auto exchange = [&] {
            patch(pages[i] * page, second);
            patch(pages[j] * page, first);
         };
         const std::string what =
            "exchanging pages " + std::to_string(pages[i]) + " and " + std::to_string(pages[j]);
         exchange();
         atRest(what);
         mounted(what, exchange);
         restore();
      }
   }
   EXPECT_GT(refusals, 20U);
}

// Noise passes a check once in 65,536 words: what is read of it may be wrong, but nothing worse.
TEST_F(Damage, OfAnyKindCrashesNobodyAndKeepsNobodyWaiting) {
   std::mt19937_64 random(7);
   for (int round = 0; round < 400; ++round) {
      TableMount writing(directory, "table", writer(damagedShape()));
      TableMount reading(directory, "table", reader(damagedShape()));
      for (int i = 0; i < 1 + round % 5; ++i) {
         std::string noise(8 << random() % 10, '\0');
         for (char& byte : noise) {
            byte = static_cast<char>(random());
         }
         const std::size_t offset = page + random() % (slotOf(460) - page - noise.size());
         patch(offset, noise);
      }
      Words record(reading.recordWords());
      Words key(reading.keyWords());
      for (TableMount* mount : {&reading, &writing}) {
         for (std::uint32_t i = 0; i < 500; ++i) {
            (void)errorOf([&] { (void)mount->get(bytes(i), record); });
         }
         (void)errorOf([&] { (void)contents(*mount); });
         (void)errorOf([&] { (void)changes(*mount); });
         (void)errorOf([&] { (void)mount->preparedChange(key); });
         (void)errorOf([&] { (void)mount->arm(); });
         (void)errorOf([&] { (void)mount->count(); });
         (void)errorOf([&] { EXPECT_LE(mount->audit().problems.size(), 100U); });
         for (std::uint32_t i = 0; i < 500 && mount == &writing; i += 11) {
            (void)errorOf([&] { mount->put(bytes(i), bytes(i)); });
            (void)errorOf([&] { del(*mount, i + 1); });
         }
      }
      (void)errorOf([&] { const TableMount again(directory, "table", writer(damagedShape())); });
      restore();
   }
}

TEST_F(Damage, IsNamedByTheAudit) {
   const TableMount reading(directory, "table", reader(damagedShape()));
   const auto problems = [&](std::size_t offset, const std::string& with) {
      patch(offset, with);
      std::vector<std::string> found = reading.audit().problems;
      const std::string refusal =
         errorOf([&] { const TableMount mount(directory, "table", writer(damagedShape())); });
      found.push_back(refusal);
      restore();
      return found;
   };
   using testing::ElementsAre;
   const std::string zeros(8, '\0');
   const std::string prefix = "corrupted: shared table 'table' is corrupted: ";
   for (int control = 0; control < 9; ++control) {
      EXPECT_THAT(problems(page + 64 + control * 8, zeros).front(),
                  "a counter of the table fails its check: number " + std::to_string(control));
   }
   EXPECT_THAT(problems(slotOf(200), zeros),
               ElementsAre("the state of a record fails its check, in slot 200",
                           prefix + "the state of a record fails its check, in slot 200"));
   EXPECT_THAT(problems(slotOf(200) + 16, zeros),
               ElementsAre("a record fails its check, in slot 200",
                           prefix + "a record fails its check, in slot 200"));
   // What only a look at everything standing still can find.
   const std::string refusal = problems(slotOf(60) + 8, zeros).back();
   EXPECT_EQ(refusal, prefix + "the list of free slots fails its check, at slot 60");
}

TEST_F(Damage, OfManyPlacesIsNamedUpToAHundredTimes) {
   const TableMount reading(directory, "table", reader(damagedShape()));
   for (std::size_t slot = 0; slot < 460; ++slot) {
      patch(slotOf(slot), std::string(8, '\0'));
   }
   EXPECT_EQ(reading.audit().problems.size(), 100U);
   restore();
}

// A descriptor of 0 was taken for the one that a mount had looked at last, when it had not yet.
TEST_F(Damage, OfTheIndexDescriptorIsFoundByAReaderThatHasNotReadYet) {
   patch(page + 64, std::string(8, '\0'));
   const TableMount reading(directory, "table", reader(damagedShape()));
   EXPECT_EQ(errorOf([&] { (void)get(reading, 1); }),
             "corrupted: shared table 'table' is corrupted: the index descriptor fails its check "
             "0");
   restore();
}

// When the index grew, a record with a damaged key went to where nobody would look for it.
TEST_F(Damage, OfAKeyDoesNotMakeItsRecordVanishWhenTheIndexGrows) {
   TableMount writing(directory, "table", writer(damagedShape()));
   patch(slotOf(200) + 16, "\xC9");
   bool refused = false;
   for (std::uint32_t key = 1000; key < 2500 && !refused; ++key) {
      refused = errorOf([&] { writing.put(bytes(key), bytes(1)); }) != "";
   }
   EXPECT_TRUE(refused);
   EXPECT_NE(errorOf([&] { (void)get(writing, 200); }), "");
   EXPECT_EQ(get(writing, 201), valueOf(201));
   restore();
}

TEST_F(Damage, OfARecordKeepsTheOthersReadableAndEndsTheWritingOnceAWriterMeetsIt) {
   TableMount writing(directory, "table", writer(damagedShape()));
   TableMount reading(directory, "table", reader(damagedShape()));
   const std::string wholeRecord = "corrupted: shared table 'table' is corrupted: a record fails "
                                   "its check, in slot 200";
   // Both buffers.
   patch(slotOf(200) + 24, "damage");
   patch(slotOf(200) + 48, "damage");
   EXPECT_EQ(errorOf([&] { (void)get(reading, 200); }), wholeRecord);
   EXPECT_EQ(get(reading, 199), valueOf(199));
   writing.put(bytes(201), bytes(7));
   EXPECT_EQ(get(reading, 201), bytes(7));
   EXPECT_EQ(errorOf([&] { del(writing, 200); }), wholeRecord);
   EXPECT_EQ(errorOf([&] { writing.put(bytes(201), bytes(8)); }), wholeRecord);
   EXPECT_EQ(get(reading, 201), bytes(7));
}

TEST_F(Damage, OfARecordIsMendedByWritingItAnewBeforeAnybodyMinds) {
   TableMount writing(directory, "table", writer(damagedShape()));
   patch(slotOf(200) + 24, "damage");
   patch(slotOf(200) + 48, "damage");
   EXPECT_FALSE(writing.put(bytes(200), bytes(8)));
   EXPECT_EQ(get(writing, 200), bytes(8));
   EXPECT_EQ(writing.audit().problems, std::vector<std::string>());
}

// A page of zeros was, once in 65,536 words, taken for one of a table.
TEST(Seal, NoWordOfAZeroedPageIsEverSealed) {
   for (std::uint64_t salt = 0; salt < 1000000; ++salt) {
      Word value = 0;
      ASSERT_FALSE(Seal::unseal(0, salt, value));
      ASSERT_FALSE(Seal::unseal(0, mixed(salt), value));
   }
}

TEST(Seal, GivesBackWhatWasSealedAndFindsEveryFlippedBit) {
   std::mt19937_64 random(3);
   for (int i = 0; i < 20000; ++i) {
      const Word value = random() >> (16 + random() % 48);
      const Word salt = random();
      const Word sealed = Seal::sealed(value, salt);
      Word unsealed = 0;
      ASSERT_TRUE(Seal::unseal(sealed, salt, unsealed));
      ASSERT_EQ(unsealed, value);
      for (int bit = 0; bit < 64; ++bit) {
         ASSERT_FALSE(Seal::unseal(sealed ^ Word{1} << bit, salt, unsealed));
      }
   }
}

/// Who is stopped by a write that meets damage can know before.
TEST_F(Damage, AWriteThatWasLookedIntoMeetsNone) {
   std::size_t told = 0;
   for (std::size_t offset = page; offset + 8 <= original.size(); offset += 8) {
      const std::string before = original.substr(offset, 8);
      if (before == std::string(8, '\0') && offset % 97 != 0) {
         continue; // most of the file is a hole
      }
      for (const std::uint32_t key : {std::uint32_t{4}, std::uint32_t{499}}) {
         TableMount writing(directory, "table", writer(damagedShape()));
         std::string flipped = before;
         flipped[offset / 8 % 8] = static_cast<char>(flipped[offset / 8 % 8] ^ 0x10);
         patch(offset, flipped);
         bool isTold = false;
         try {
            writing.checkWrite(bytes(key));
            EXPECT_EQ(content("table.tbl").substr(offset, 8), flipped) << "something was written";
         } catch (const CorruptionException&) {
            isTold = true;
            ++told;
         } catch (const std::system_error& error) {
            isTold = true; // the lock's word
            EXPECT_LT(offset, 2 * page) << error.what();
         }
         if (!isTold) {
            EXPECT_NO_THROW(writing.put(bytes(key), bytes(1))) << offset;
         }
         restore();
      }
   }
   EXPECT_GT(told, 10U);
}

} // namespace
