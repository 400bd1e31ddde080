#include "platform/metrics/Exposer.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <exception>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include <arpa/inet.h>
#include <fmt/format.h>
#include <netinet/in.h>
#include <prometheus/collectable.h>
#include <prometheus/exposer.h>
#include <prometheus/metric_family.h>
#include <sys/socket.h>
#include <unistd.h>

#include "platform/metrics/ListenAddress.h"
#include "platform/metrics/Registry.h"
#include "platform/metrics/SeriesTable.h"
#include "platform/trace/Trace.h"

namespace Platform::Metrics {

namespace {

TARN_TRACE_SOURCE(traceSource, "platform/metrics");

using Family = prometheus::MetricFamily;

prometheus::ClientMetric clientMetric(const std::vector<Label>& labels) {
   prometheus::ClientMetric metric;
   metric.label.reserve(labels.size());
   for (const Label& label : labels) {
      metric.label.push_back({label.name, label.value});
   }
   return metric;
}

void counterAdd(Family& family, const std::vector<Label>& labels, std::uint64_t value) {
   family.metric.push_back(clientMetric(labels));
   family.metric.back().counter.value = static_cast<double>(value);
}

void histogramAdd(Family& family, const SeriesTable::Sample& sample) {
   const auto shown = [&](std::uint64_t value) {
      return static_cast<double>(value) / static_cast<double>(sample.perShownUnit);
   };
   family.metric.push_back(clientMetric(sample.description->labels));
   prometheus::ClientMetric::Histogram& histogram = family.metric.back().histogram;
   histogram.sample_count = sample.histogram.count;
   histogram.sample_sum = shown(sample.histogram.sum);
   std::uint64_t upToHere = 0;
   // The serializer adds the bucket of all.
   for (std::size_t i = 0; i < sample.upperBounds.size(); ++i) {
      upToHere += sample.histogram.counts[i];
      histogram.bucket.push_back({upToHere, shown(sample.upperBounds[i])});
   }
}

Family familyNew(std::string name, std::string help, prometheus::MetricType type) {
   Family family;
   family.name = std::move(name);
   family.help = std::move(help);
   family.type = type;
   return family;
}

std::vector<Family> families(const SeriesTable::Snapshot& snapshot) {
   std::vector<Family> families;
   for (const SeriesTable::Sample& sample : snapshot.samples) {
      const bool isHistogram = !sample.upperBounds.empty();
      if (families.empty() || families.back().name != sample.description->name) {
         families.push_back(familyNew(sample.description->name, sample.description->help,
                                      isHistogram ? prometheus::MetricType::Histogram
                                                  : prometheus::MetricType::Counter));
      }
      if (isHistogram) {
         histogramAdd(families.back(), sample);
      } else {
         counterAdd(families.back(), sample.description->labels, sample.value);
      }
   }
   families.push_back(familyNew("tarn_metrics_refused_registrations_total",
                                "Groups of counters that the registry refused to show",
                                prometheus::MetricType::Counter));
   counterAdd(families.back(), {{"reason", "cap"}}, snapshot.refusedForCap);
   counterAdd(families.back(), {{"reason", "duplicate"}}, snapshot.refusedAsDuplicate);
   families.push_back(familyNew("tarn_metrics_series", "Series that the registry shows",
                                prometheus::MetricType::Gauge));
   families.back().metric.push_back(clientMetric({}));
   families.back().metric.back().gauge.value = static_cast<double>(snapshot.series);
   return families;
}

class TableCollectable : public prometheus::Collectable {
public:
   explicit TableCollectable(std::shared_ptr<const SeriesTable> table) : _table(std::move(table)) {}

   std::vector<Family> Collect() const override {
      try {
         return families(_table->snapshot());
      } catch (const std::exception& error) {
         // The HTTP server is C: an exception must not get there.
         TARN_TRACE(traceSource, 0, "Collect", "{}", error.what());
         return {};
      }
   }

private:
   const std::shared_ptr<const SeriesTable> _table;
};

class Socket {
public:
   explicit Socket(const ListenAddress& address, int flags = 0)
      : _fd(::socket(address.isV6() ? AF_INET6 : AF_INET, SOCK_STREAM | SOCK_CLOEXEC | flags, 0)) {}
   ~Socket() {
      if (_fd >= 0) {
         ::close(_fd);
      }
   }
   Socket(const Socket&) = delete;
   Socket& operator=(const Socket&) = delete;

   [[nodiscard]] int fd() const noexcept { return _fd; }

private:
   const int _fd;
};

class SocketAddress {
public:
   SocketAddress(const ListenAddress& address, std::uint16_t port) noexcept {
      if (address.isV6()) {
         auto* v6 = reinterpret_cast<sockaddr_in6*>(&_storage);
         v6->sin6_family = AF_INET6;
         v6->sin6_port = htons(port);
         ::inet_pton(AF_INET6, address.address().c_str(), &v6->sin6_addr);
         _size = sizeof *v6;
      } else {
         auto* v4 = reinterpret_cast<sockaddr_in*>(&_storage);
         v4->sin_family = AF_INET;
         v4->sin_port = htons(port);
         ::inet_pton(AF_INET, address.address().c_str(), &v4->sin_addr);
         _size = sizeof *v4;
      }
   }

   [[nodiscard]] const sockaddr* get() const noexcept {
      return reinterpret_cast<const sockaddr*>(&_storage);
   }
   [[nodiscard]] socklen_t size() const noexcept { return _size; }

private:
   sockaddr_storage _storage{};
   socklen_t _size = 0;
};

// The HTTP server says no more than that it could not start; the reason is found by listening
// here first. 0, or the errno.
int listenError(const ListenAddress& address) noexcept {
   const Socket socket(address);
   const int on = 1;
   if (socket.fd() < 0 ||
       ::setsockopt(socket.fd(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0) {
      return errno;
   }
   const SocketAddress where(address, address.port());
   if (::bind(socket.fd(), where.get(), where.size()) != 0 || ::listen(socket.fd(), 1) != 0) {
      return errno;
   }
   return 0;
}

// Threads inherit the signal mask: made inside such a scope they leave the process's signals to
// the threads that expect them. Those that report a thread's own fault stay as they are.
class SignalsBlocked {
public:
   SignalsBlocked() noexcept {
      sigset_t blocked;
      ::sigfillset(&blocked);
      for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP, SIGSYS}) {
         ::sigdelset(&blocked, fault);
      }
      ::pthread_sigmask(SIG_BLOCK, &blocked, &_previous);
   }
   ~SignalsBlocked() { ::pthread_sigmask(SIG_SETMASK, &_previous, nullptr); }
   SignalsBlocked(const SignalsBlocked&) = delete;
   SignalsBlocked& operator=(const SignalsBlocked&) = delete;

private:
   sigset_t _previous{};
};

std::unique_ptr<prometheus::Exposer> exposerNew(const ListenAddress& address,
                                                std::string_view text) {
   const auto failed = [&](int error) {
      return std::system_error(error, std::generic_category(),
                               fmt::format("cannot serve metrics on '{}'", text));
   };
   if (const int error = listenError(address)) {
      throw failed(error);
   }
   const SignalsBlocked signalsBlocked;
   try {
      // One scraper and one curious person at a time; a client that stalls gets 5 seconds.
      return std::make_unique<prometheus::Exposer>(std::vector<std::string>{
         "listening_ports", address.text(), "num_threads", "2", "request_timeout_ms", "5000"});
   } catch (const std::bad_alloc&) {
      throw;
   } catch (const std::exception&) {
      if (const int error = listenError(address)) {
         throw failed(error); // somebody took the port since it was tried
      }
      // The address is fine, so it is the server that cannot use it. Debian 12 builds it without
      // IPv6.
      throw failed(address.isV6() ? EAFNOSUPPORT : EIO);
   }
}

} // namespace

struct Exposer::Server {
   Server(std::shared_ptr<const SeriesTable> table, std::string_view text)
      : address(text), collectable(std::make_shared<TableCollectable>(std::move(table))),
        exposer(exposerNew(address, text)) {
      exposer->RegisterCollectable(collectable);
      const std::vector<int> ports = exposer->GetListeningPorts();
      port = ports.empty() ? std::uint16_t{0} : static_cast<std::uint16_t>(ports.front());
   }

   ~Server() { stop(); }

   Server(const Server&) = delete;
   Server& operator=(const Server&) = delete;

   // Left alone, the HTTP server looks only every two seconds whether it is to stop, and a program
   // would take as long to end. A connection makes it look at once; as nobody can tell from here
   // when it has been told, there are more of them until it is gone.
   void stop() noexcept {
      std::atomic<bool> stopped{false};
      std::thread knocker;
      try {
         const SignalsBlocked signalsBlocked;
         knocker = std::thread([&] {
            const SocketAddress where(address, port);
            while (!stopped) {
               const Socket socket(address, SOCK_NONBLOCK);
               static_cast<void>(::connect(socket.fd(), where.get(), where.size()));
               std::this_thread::sleep_for(std::chrono::milliseconds(2));
            }
         });
      } catch (const std::system_error&) {
         // No thread to be had: it takes its two seconds.
      }
      exposer.reset();
      stopped = true;
      if (knocker.joinable()) {
         knocker.join();
      }
   }

   const ListenAddress address;
   // The server knows it only weakly.
   const std::shared_ptr<TableCollectable> collectable;
   std::unique_ptr<prometheus::Exposer> exposer;
   std::uint16_t port = 0;
};

Exposer::Exposer(const Registry& registry, std::string_view address)
   : _server(std::make_unique<Server>(registry._table, address)) {}

std::uint16_t Exposer::port() const noexcept {
   return _server->port;
}

Exposer::~Exposer() = default;

} // namespace Platform::Metrics
