#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "platform/trace/CaptureScope.h"
#include "platform/trace/CaptureSink.h"
#include "platform/trace/Trace.h"

namespace {

using Platform::Trace::CaptureScope;
using Platform::Trace::CaptureSink;
using Platform::Trace::levelsAre;
using Platform::Trace::sinkIs;
using Platform::Trace::Source;

TARN_TRACE_SOURCE(traceSource, "test/threads");

constexpr int threadCount = 4;
constexpr int rounds = 500;

template <typename Body>
void onThreads(Body body) {
   std::vector<std::thread> threads;
   for (int i = 0; i < threadCount; ++i) {
      threads.emplace_back(body, i);
   }
   for (std::thread& thread : threads) {
      thread.join();
   }
}

TEST(TraceThreads, NoRecordIsLostAndEachThreadsStayInOrderWhileLevelsChange) {
   const CaptureScope trace;
   std::atomic<bool> done{false};
   std::thread changer([&] {
      for (int i = 0; !done; ++i) {
         levelsAre(i % 2 == 0 ? "*=9" : "test/threads=0");
      }
   });
   onThreads([](int thread) {
      for (int round = 0; round < rounds; ++round) {
         TARN_TRACE(traceSource, 0, "f", "{} {}", thread, round);
         TARN_TRACE(traceSource, 9, "f", "sometimes");
      }
   });
   done = true;
   changer.join();

   int next[threadCount] = {};
   for (const std::string& text : trace.texts()) {
      if (text != "sometimes") {
         const int thread = text[0] - '0';
         EXPECT_EQ(text, std::to_string(thread) + ' ' + std::to_string(next[thread]));
         ++next[thread];
      }
   }
   for (const int count : next) {
      EXPECT_EQ(count, rounds);
   }
}

TEST(TraceThreads, EveryRecordReachesOneOfTheSinksThatComeAndGo) {
   const CaptureScope trace;
   std::atomic<bool> done{false};
   std::size_t counted = 0;
   std::vector<std::shared_ptr<CaptureSink>> sinks;
   std::thread changer([&] {
      while (!done && sinks.size() < 100) {
         sinks.push_back(std::make_shared<CaptureSink>());
         sinkIs(sinks.back());
         std::this_thread::yield();
      }
   });
   onThreads([](int) {
      for (int round = 0; round < rounds; ++round) {
         TARN_TRACE(traceSource, 0, "f", "{}", round);
      }
   });
   done = true;
   changer.join();
   counted += trace.records().size();
   for (const auto& sink : sinks) {
      counted += sink->records().size();
   }
   EXPECT_EQ(counted, std::size_t{threadCount} * rounds);
}

TEST(TraceThreads, SourcesMayComeAndGoWhileLevelsChange) {
   const CaptureScope trace;
   std::atomic<bool> done{false};
   std::thread changer([&] {
      while (!done) {
         levelsAre("test/threads/*=3");
         static_cast<void>(Platform::Trace::sourceNames());
         levelsAre("*=9");
      }
   });
   onThreads([](int) {
      for (int round = 0; round < rounds; ++round) {
         Source source("test/threads/local");
         TARN_TRACE(source, 3, "f", "{}", round);
      }
   });
   done = true;
   changer.join();
   EXPECT_EQ(trace.records().size(), std::size_t{threadCount} * rounds);
}

TEST(TraceThreads, FirstUseOfASourceByManyAtOnceRegistersItOnce) {
   const CaptureScope trace("test/threads/shared=3");
   for (int round = 0; round < 50; ++round) {
      Source source("test/threads/shared");
      onThreads([&](int) {
         TARN_TRACE(source, 4, "f", "disabled");
         TARN_TRACE(source, 3, "f", "enabled");
      });
   }
   EXPECT_EQ(trace.records().size(), std::size_t{threadCount} * 50);
}

} // namespace
