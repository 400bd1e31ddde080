// What a register read through the SMBus proxy daemon costs above the same bytes going to and fro
// over a bare Unix socket; how many of them clients get through together; and what a bus that
// hangs costs the clients of another.
//
// Every server is a process of its own. In real time, since two processes take turns.

#include <sched.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "nimbo/Server.h"
#include "nimbo/SimulatedBackend.h"
#include "platform/entity/MultiThreading.h"
#include "platform/hardware/HardwareRegisterFile.h"
#include "TarnRegFile/NimboSmbusTransportDescriptor.h"
#include "TarnRegFile/TransportMethod.h"

namespace {

constexpr std::uint8_t deviceAddress = 0x50;
constexpr std::uint8_t fastBus = 3;
constexpr std::uint8_t hangingBus = 4;
constexpr std::size_t mostFrame = 256;

[[noreturn]] void die(const char* what) {
   std::perror(what);
   std::abort();
}

/// Has the calling process, or thread, run on one processor only, or on all. Two that take turns
/// are then compared without what waking another processor costs, which may be anything.
void onOneProcessor(bool isOne) {
   ::cpu_set_t processors;
   CPU_ZERO(&processors);
   for (std::size_t i = 0; i < (isOne ? 1 : CPU_SETSIZE); ++i) {
      CPU_SET(i, &processors);
   }
   ::sched_setaffinity(0, sizeof(processors), &processors);
}

std::string frame(const Smbus::TransactionRequest& request) {
   std::string bytes(Nimbo::frameHeaderSize, '\0');
   request.AppendToString(&bytes);
   bytes[0] = 1;
   bytes[1] = static_cast<char>(bytes.size() - Nimbo::frameHeaderSize);
   return bytes;
}

/// What the transport sends to read a register.
std::string readFrame(std::uint8_t bus) {
   Smbus::TransactionRequest request;
   request.set_xid(0x12345678);
   const std::uint64_t place =
      std::uint64_t{bus} << 39 | std::uint64_t{deviceAddress} << 32 | std::uint64_t{1} << 57;
   Smbus::Request* write = request.add_requests();
   write->set_type(Smbus::REQUEST_TYPE_WRITE);
   write->set_mastertype(Smbus::MASTER_TYPE_BLOCK);
   write->set_address(place);
   write->set_data("\x10");
   write->set_length(1);
   Smbus::Request* read = request.add_requests();
   read->set_type(Smbus::REQUEST_TYPE_READ);
   read->set_mastertype(Smbus::MASTER_TYPE_BLOCK);
   read->set_address(place);
   read->set_length(4);
   return frame(request);
}

/// The size of the answer to that.
std::size_t answerSize() {
   Smbus::TransactionResponse response;
   response.set_xid(0x12345678);
   response.add_responses();
   response.add_responses()->set_data(std::string("\0\0\0\x2a", 4));
   return Nimbo::frameHeaderSize + response.ByteSizeLong();
}

class Socket {
public:
   explicit Socket(const std::string& path) : _fd(::socket(AF_UNIX, SOCK_STREAM, 0)) {
      ::sockaddr_un address = {};
      address.sun_family = AF_UNIX;
      path.copy(address.sun_path, sizeof(address.sun_path) - 1);
      if (::connect(_fd, reinterpret_cast<::sockaddr*>(&address), sizeof(address)) < 0) {
         die("connect");
      }
   }
   ~Socket() { ::close(_fd); }
   Socket(const Socket&) = delete;
   Socket& operator=(const Socket&) = delete;

   void send(const std::string& bytes) const {
      if (::send(_fd, bytes.data(), bytes.size(), 0) != static_cast<::ssize_t>(bytes.size())) {
         die("send");
      }
   }

   void receive(std::size_t size) const {
      std::array<char, mostFrame> buffer;
      while (size > 0) {
         const ::ssize_t count = ::recv(_fd, buffer.data(), std::min(size, buffer.size()), 0);
         if (count <= 0) {
            die("recv");
         }
         size -= static_cast<std::size_t>(count);
      }
   }

private:
   const int _fd;
};

int listening(const std::string& path) {
   const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
   ::sockaddr_un address = {};
   address.sun_family = AF_UNIX;
   path.copy(address.sun_path, sizeof(address.sun_path) - 1);
   if (::bind(fd, reinterpret_cast<::sockaddr*>(&address), sizeof(address)) < 0 ||
       ::listen(fd, SOMAXCONN) < 0) {
      die("listen");
   }
   return fd;
}

/// Answers `request` bytes with `answer` bytes, to one client, and then to the next.
void pingPongServer(int listener, std::size_t request, std::size_t answer) {
   std::array<char, mostFrame> buffer = {};
   for (;;) {
      const int client = ::accept(listener, nullptr, nullptr);
      std::size_t have = 0;
      for (;;) {
         const ::ssize_t count = ::recv(client, buffer.data(), buffer.size(), 0);
         if (count <= 0) {
            break;
         }
         for (have += static_cast<std::size_t>(count); have >= request; have -= request) {
            if (::send(client, buffer.data(), answer, MSG_NOSIGNAL) < 0) {
               break;
            }
         }
      }
      ::close(client);
   }
}

/// The same for any number of clients.
void echoServer(int listener, std::size_t answer) {
   std::array<char, mostFrame> buffer = {};
   const int epoll = ::epoll_create1(0);
   const auto add = [epoll](int fd) {
      ::epoll_event event = {};
      event.events = EPOLLIN;
      event.data.fd = fd;
      ::epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &event);
   };
   add(listener);
   for (;;) {
      std::array<::epoll_event, 64> events;
      const int count = ::epoll_wait(epoll, events.data(), static_cast<int>(events.size()), -1);
      for (int i = 0; i < count; ++i) {
         const int fd = events[static_cast<std::size_t>(i)].data.fd;
         if (fd == listener) {
            add(::accept(listener, nullptr, nullptr));
         } else if (::recv(fd, buffer.data(), buffer.size(), 0) <= 0) {
            ::close(fd);
         } else {
            ::send(fd, buffer.data(), answer, MSG_NOSIGNAL);
         }
      }
   }
}

/// A fast bus, and one on which every transfer takes a tenth of a second.
void daemonServer(int listener) {
   Platform::multiThreadedIs();
   Platform::EventLoop loop;
   std::vector<std::shared_ptr<Nimbo::Bus>> buses;
   for (const std::uint8_t number : {fastBus, hangingBus}) {
      auto bus = std::make_shared<Hardware::SimulatedI2cBus>();
      auto device =
         std::make_shared<Hardware::SimulatedI2cDevice>(Hardware::SimulatedI2cKind::block);
      device->registerIs(0x10, 42);
      if (number == hangingBus) {
         device->faults().delayIs(std::chrono::milliseconds(100));
      }
      bus->deviceIs(deviceAddress, std::move(device));
      Nimbo::BusConfig config;
      config.name = fmt::format("bus{}", number);
      config.number = number;
      buses.push_back(std::make_shared<Nimbo::Bus>(
         config, std::make_unique<Nimbo::SimulatedBackend>(std::move(bus))));
   }
   Nimbo::Server server(loop, 1000, [](int, std::string& peer) {
      peer = "bench";
      return true;
   });
   server.busesAre(std::make_shared<const Nimbo::BusTable>(std::move(buses)));
   server.listenAt(listener);
   loop.run();
}

/// The servers, in a directory of their own that goes with them.
class Servers {
public:
   Servers() : _directory(std::filesystem::temp_directory_path() / "tarn-smbus-XXXXXX") {
      if (!::mkdtemp(_directory.data())) {
         die("mkdtemp");
      }
      const std::size_t request = readFrame(fastBus).size();
      const std::size_t answer = answerSize();
      _start("ping", [=](int fd) {
         onOneProcessor(true);
         pingPongServer(fd, request, answer);
      });
      _start("smbus-one", [](int fd) {
         onOneProcessor(true);
         daemonServer(fd);
      });
      _start("echo", [=](int fd) { echoServer(fd, answer); });
      _start("smbus", daemonServer);
   }

   ~Servers() {
      for (const ::pid_t child : _children) {
         ::kill(child, SIGKILL);
         ::waitpid(child, nullptr, 0);
      }
      std::filesystem::remove_all(_directory);
   }

   Servers(const Servers&) = delete;
   Servers& operator=(const Servers&) = delete;

   std::string path(const std::string& name) const { return _directory + "/" + name; }

   /// Where transports that are made from now on find a daemon.
   void addressIs(const char* name) const {
      ::setenv("NM_SOCKET_DIR", _directory.c_str(), 1);
      ::setenv("NM_SOCKET_FILE", name, 1);
   }

private:
   void _start(const std::string& name, const std::function<void(int)>& serve) {
      const int fd = listening(path(name));
      const ::pid_t child = ::fork();
      if (child == 0) {
         ::prctl(PR_SET_PDEATHSIG, SIGKILL);
         serve(fd);
         ::_exit(1);
      }
      ::close(fd);
      _children.push_back(child);
   }

   std::string _directory;
   std::vector<::pid_t> _children;
};

const Servers* servers = nullptr;

void exchange(benchmark::State& state, const std::string& server) {
   const std::string request = readFrame(fastBus);
   const std::size_t answer = answerSize();
   const Socket socket(servers->path(server));
   for (auto _ : state) {
      socket.send(request);
      socket.receive(answer);
   }
   state.SetItemsProcessed(state.iterations());
}

void barePingPong(benchmark::State& state) {
   onOneProcessor(true);
   exchange(state, "ping");
   onOneProcessor(false);
}

void daemonPingPong(benchmark::State& state) {
   onOneProcessor(true);
   exchange(state, "smbus-one");
   onOneProcessor(false);
}

/// A register by its name, through the transport.
void readByName(benchmark::State& state) {
   const auto model = Hardware::hardwareRegisterFileFactory("bench");
   Hardware::HardwareRegister reg;
   reg.name = "A";
   reg.address = 0x10;
   reg.width = 32;
   model->nameToRegMapIs(reg.name, reg);
   const auto method = TarnRegFile::transportMethodFactory("bench");
   method->raiseExceptionOnErrorIs(true);
   servers->addressIs("smbus-one");
   method->fullInit(
      TarnRegFile::nimboSmbusTransportDescriptorFactory(
         fastBus, deviceAddress, 0, TarnRegFile::TransportFlavour::nimboSmbusFlavour1),
      TarnRegFile::TransportMethodRegFile(model));
   onOneProcessor(true);
   for (auto _ : state) {
      benchmark::DoNotOptimize(method->regRead("A"));
   }
   onOneProcessor(false);
}

/// While others have the hanging bus in use and wait for it.
void daemonPingPongBesideHangingBus(benchmark::State& state) {
   std::vector<std::unique_ptr<Socket>> others;
   for (int i = 0; i < 4; ++i) {
      others.push_back(std::make_unique<Socket>(servers->path("smbus-one")));
      others.back()->send(readFrame(hangingBus));
   }
   daemonPingPong(state);
}

void bareEcho(benchmark::State& state) {
   exchange(state, "echo");
}

void daemonThroughput(benchmark::State& state) {
   exchange(state, "smbus");
}

BENCHMARK(barePingPong)->UseRealTime();
BENCHMARK(readByName)->UseRealTime();
BENCHMARK(daemonPingPong)->UseRealTime();
BENCHMARK(daemonPingPongBesideHangingBus)->UseRealTime();
BENCHMARK(bareEcho)->UseRealTime()->Threads(1)->Threads(8)->Threads(64);
BENCHMARK(daemonThroughput)->UseRealTime()->Threads(1)->Threads(8)->Threads(64);

} // namespace

int main(int argc, char** argv) {
   const Servers running;
   servers = &running;
   benchmark::Initialize(&argc, argv);
   benchmark::RunSpecifiedBenchmarks();
   return 0;
}
