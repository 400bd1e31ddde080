// The state machine and its requests by themselves: entries, reflection, publishing.

#include "TarnRegFile/I2cTransportSornImplSm.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/entity/CallbackNotifiee.h"
#include "platform/entity/Value.h"
#include "tests/support/ChangeLog.h"
#include "tests/support/Failure.h"
#include "tests/support/Reflected.h"
#include "tests/unit/TarnRegFile/SornTransportTest.h"

namespace {

using Hardware::SornOp;
using Hardware::SornRequestState;
using Hardware::SornStatus;
using Platform::Value;
using TarnRegFile::I2cTransportRequest;
using TarnRegFile::I2cTransportSornImplSm;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using TestSupport::Failure;

class I2cTransportSornImplSmTest : public SornTransportTest {
protected:
   I2cTransportSornImplSmTest() {
      open();
      sm = transport->sm();
   }

   Value invoke(const char* operation, const std::vector<Value>& arguments) {
      return sm->typeData().invoke(*sm, operation, arguments);
   }

   /// The entries' keys, as the table has them.
   std::vector<I2cTransportSornImplSm::Key> keys() const {
      std::vector<I2cTransportSornImplSm::Key> found;
      for (const Value& key : sm->typeData().findAttribute("i2cTransportRequest")->keys(*sm)) {
         found.push_back(key.as<I2cTransportSornImplSm::Key>());
      }
      return found;
   }

   Ptr<I2cTransportSornImplSm> sm;
};

TEST_F(I2cTransportSornImplSmTest, ItIsDescribedByItsTable) {
   const auto& type = I2cTransportSornImplSm::staticType();
   EXPECT_EQ(type.name(), "TarnRegFile::I2cTransportSornImplSm");
   EXPECT_THAT(TestSupport::reflectedAttributes(type),
               ElementsAre("sorn", "devId", "regFile", "asyncHelper (rw)", "i2cTransportRequest"));
   EXPECT_THAT(TestSupport::reflectedOperations(type),
               ElementsAre("newTransportRequest(regName)", "sornRead(regName)",
                           "sornWrite(regName, value)"));
   EXPECT_EQ(type.findAttribute("devId")->type->name(), "U32");
   EXPECT_EQ(type.findAttribute("regFile")->type->name(), "Ptr<const TarnRegFile::RegFileHelper>");
   EXPECT_EQ(type.findAttribute("i2cTransportRequest")->keyType->name(),
             "Ptr<const Hardware::SornRequest>");
   EXPECT_EQ(type.findAttribute("i2cTransportRequest")->type->name(),
             "Ptr<TarnRegFile::I2cTransportRequest>");

   const auto& request = I2cTransportRequest::staticType();
   EXPECT_EQ(request.name(), "TarnRegFile::I2cTransportRequest");
   EXPECT_THAT(TestSupport::reflectedAttributes(request),
               ElementsAre("i2cRequest", "devId", "regName", "regAddress", "regWidth", "data (rw)",
                           "op (rw)"));
   EXPECT_EQ(request.findAttribute("regAddress")->type->name(), "U16");
   EXPECT_EQ(request.findAttribute("op")->type->name(), "Hardware::SornOp::Opcode");
}

TEST_F(I2cTransportSornImplSmTest, ItsOperationsCanBeInvokedByName) {
   gate->registers[0x1234] = 5;
   invoke("sornRead", {Value::of<std::string>("WIDE")});
   invoke("sornWrite", {Value::of<std::string>("HALF"), Value::of<std::uint32_t>(0x12345)});
   ASSERT_TRUE(results(2));
   EXPECT_THAT(helper->results, ElementsAre("read WIDE Success 5", "write HALF Success"));
   EXPECT_EQ(gate->lines().back(), "end");
   EXPECT_EQ(gate->lines().at(5), "write 80 0: 16 35 69") << "the low 16 bits";
   const Value made = invoke("newTransportRequest", {Value::of<std::string>("BYTE")});
   EXPECT_EQ(made.as<Ptr<I2cTransportRequest>>()->regWidth(), 8u);
}

TEST_F(I2cTransportSornImplSmTest, ANewRequestIsAReadOfZeroAndIsKeptUndescribed) {
   TestSupport::ChangeLog log(*sm);
   const auto request = sm->newTransportRequest("FAR");
   EXPECT_EQ(request->devId(), 0x50u);
   EXPECT_EQ(request->regName(), "FAR");
   EXPECT_EQ(request->regAddress(), 0x6789);
   EXPECT_EQ(request->regWidth(), 32u);
   EXPECT_EQ(request->data(), 0u);
   EXPECT_EQ(request->op(), SornOp::Opcode::read);
   EXPECT_EQ(request->i2cRequest()->state(), SornRequestState::idle);
   EXPECT_EQ(request->i2cRequest()->status(), SornStatus::idle);
   EXPECT_THAT(keys(), ElementsAre(I2cTransportSornImplSm::Key(request->i2cRequest())));
   EXPECT_EQ(sm->i2cTransportRequest(request->i2cRequest()), request);
   ASSERT_THAT(log.changes, SizeIs(1));
   EXPECT_EQ(log.changes[0].find("i2cTransportRequest["), 0u);
   EXPECT_THROW(request->i2cRequest()->stateIs(SornRequestState::submitted), std::system_error);
   EXPECT_THAT(gate->lines(), IsEmpty());
}

TEST_F(I2cTransportSornImplSmTest, AKeyThatIsPresentIsNotTakenAgain) {
   const auto request = sm->newTransportRequest("WIDE");
   EXPECT_EQ(Failure([&] { sm->i2cTransportRequestIs(request->i2cRequest(), "OTHER", 1, 32); }),
             Failure::range("there is already an I2C request in flight of that key, for register "
                            "'WIDE'"));
   EXPECT_EQ(sm->i2cTransportRequest(request->i2cRequest()), request);
   EXPECT_EQ(sm->i2cTransportRequests(), 1u);
   EXPECT_EQ(Failure([&] { sm->i2cTransportRequestIs(nullptr, "OTHER", 1, 32); }),
             Failure::generic(EINVAL, "I2C request must not be null"));
}

TEST_F(I2cTransportSornImplSmTest, ADeletedRequestIsReturnedAndHeardOfNoMore) {
   gate->gateIs(false);
   sm->sornRead("WIDE");
   sm->sornWrite("OTHER", 1);
   gate->awaitArrivals(1);
   const auto all = keys();
   ASSERT_THAT(all, SizeIs(2));
   TestSupport::ChangeLog log(*sm);
   auto first = sm->i2cTransportRequestDel(all[0]);
   ASSERT_TRUE(first);
   EXPECT_EQ(first->i2cRequest(), all[0]);
   EXPECT_EQ(sm->i2cTransportRequestDel(all[0]), nullptr);
   EXPECT_EQ(sm->i2cTransportRequest(all[0]), nullptr);
   EXPECT_THAT(log.changes, SizeIs(1));
   sm->i2cTransportRequestDelAll();
   EXPECT_THAT(keys(), IsEmpty());
   EXPECT_THAT(log.changes, SizeIs(2));
   EXPECT_EQ(all[1]->status(), SornStatus::idle) << "dropped, it is taken back";
   // The returned one goes on; only nobody is told.
   gate->gateIs(true);
   ASSERT_TRUE(until([&] { return first->i2cRequest()->status() == SornStatus::success; }));
   EXPECT_THAT(helper->results, IsEmpty());
}

TEST_F(I2cTransportSornImplSmTest, AnOpcodeThatIsNoneOfTheTwoIsToldToNobody) {
   const auto request = sm->newTransportRequest("WIDE");
   request->opIs(static_cast<SornOp::Opcode>(2));
   request->i2cRequest()->makeReadOp(0x5000001234ULL, request->dataPlace(),
                                     Hardware::ReadByteSwap::swap, 0);
   request->i2cRequest()->stateIs(SornRequestState::submitted);
   ASSERT_TRUE(until([&] { return sm->i2cTransportRequests() == 0; }));
   EXPECT_THAT(helper->results, IsEmpty());
}

TEST_F(I2cTransportSornImplSmTest, AReactorIsCalledForItsRequestsStatusAlone) {
   const auto request = sm->newTransportRequest("WIDE");
   request->i2cRequest()->timeoutIs(5);
   request->i2cRequest()->makeWriteOp(0x5000001234ULL, std::uint32_t{1},
                                      Hardware::WriteByteSwap::swap, 0);
   EXPECT_EQ(sm->i2cTransportRequests(), 1u);
   EXPECT_THAT(helper->results, IsEmpty());
}

TEST_F(I2cTransportSornImplSmTest, OpAndDataPublishOnlyChanges) {
   const auto request = sm->newTransportRequest("WIDE");
   TestSupport::ChangeLog log(*request);
   request->opIs(SornOp::Opcode::read);
   request->dataIs(0);
   EXPECT_THAT(log.changes, IsEmpty());
   request->opIs(SornOp::Opcode::write);
   request->dataIs(1);
   EXPECT_THAT(log.changes, ElementsAre("op", "data"));
}

/// What a request goes through, as an observer of the collection sees it from the start.
TEST_F(I2cTransportSornImplSmTest, ARequestIsMadeReadyAndThenSubmitted) {
   std::vector<std::string> seen;
   std::vector<Platform::Subscription> subscriptions;
   const auto watch = Platform::subscribe(
      *sm, I2cTransportSornImplSm::i2cTransportRequestAttr, [&](const Platform::Change& change) {
         const auto request = sm->i2cTransportRequest(change.key.as<I2cTransportSornImplSm::Key>());
         if (!request) {
            seen.push_back("gone");
            return;
         }
         seen.push_back("made");
         subscriptions.push_back(Platform::subscribe(
            *request, [&](const auto& of) { seen.emplace_back(of.attribute.name()); }));
         const I2cTransportSornImplSm::Key key = request->i2cRequest();
         subscriptions.push_back(Platform::subscribe(*key, [&, key](const auto& of) {
            if (const auto present = sm->i2cTransportRequest(key)) {
               seen.push_back(std::string(of.attribute.name()) + " " +
                              std::to_string(int(present->op())) + " " +
                              std::to_string(present->data()));
            }
         }));
      });
   sm->sornWrite("WIDE", 7);
   EXPECT_THAT(seen, ElementsAre("made", "op", "data", "state 1 7", "status 1 7"));
   ASSERT_TRUE(results(1));
   EXPECT_EQ(seen.at(5), "gone");
}

TEST_F(I2cTransportSornImplSmTest, TeardownTakesEverythingBackOnceAndTellsNobody) {
   gate->gateIs(false);
   sm->sornRead("WIDE");
   sm->sornRead("OTHER");
   gate->awaitArrivals(1);
   const auto all = keys();
   sm->teardown();
   sm->teardown();
   EXPECT_EQ(sm->i2cTransportRequests(), 0u);
   EXPECT_EQ(sm->asyncHelper(), nullptr);
   EXPECT_EQ(sm->regFile(), nullptr);
   for (const auto& key : all) {
      EXPECT_EQ(key->status(), SornStatus::idle);
   }
   const auto request = bus->sorn()->newRequest();
   EXPECT_EQ(Failure([&] { sm->i2cTransportRequestIs(request, "WIDE", 1, 32); }),
             Failure::generic(ESHUTDOWN, "the I2C transport has been taken down"));
   gate->gateIs(true);
   EXPECT_THAT(helper->results, IsEmpty());
}

TEST_F(I2cTransportSornImplSmTest, AnEndedRequestKeepsItsStatusForOthers) {
   sm->sornRead("WIDE");
   const auto key = keys().at(0);
   ASSERT_TRUE(results(1));
   loop.poll();
   EXPECT_EQ(key->status(), SornStatus::success);
   EXPECT_EQ(key->state(), SornRequestState::submitted);
}

TEST_F(I2cTransportSornImplSmTest, ADescribedRequestThatGoesCannotBeSubmittedByOthers) {
   auto request = sm->newTransportRequest("WIDE");
   const auto kept = request->i2cRequest();
   kept->makeReadOp(0x5000001234ULL, request->dataPlace(), Hardware::ReadByteSwap::swap, 0);
   sm->i2cTransportRequestDel(kept);
   request.reset();
   EXPECT_THROW(kept->stateIs(SornRequestState::submitted), std::system_error);
   EXPECT_THAT(gate->lines(), IsEmpty());
}

TEST_F(I2cTransportSornImplSmTest, AnObserverThatThrowsWhileARequestGoesIsHarmless) {
   gate->gateIs(false);
   sm->sornRead("WIDE");
   const auto key = keys().at(0);
   const auto thrower =
      Platform::subscribe(*key, [](const auto&) { throw std::runtime_error("no"); });
   sm->i2cTransportRequestDelAll();
   EXPECT_EQ(key->state(), SornRequestState::idle);
   gate->gateIs(true);
}

} // namespace
