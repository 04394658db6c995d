// A connection to the bus that speaks the transport's protocol as it likes.
#pragma once

#include <systemd/sd-bus.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "platform/linux/src/bus_message.h"
#include "platform/linux/src/bus_names.h"

namespace orb::test {

using orb_platform::BusMessage;

// Not thread-safe.
class RawPeer {
 public:
  // `service`: the bus name that all calls go to.
  RawPeer(const std::string& address, std::string service) : service_(std::move(service)) {
    const char* name = nullptr;  // Comes once the bus has let the connection in.
    if (sd_bus_new(&bus_) < 0 || sd_bus_set_address(bus_, address.c_str()) < 0 ||
        sd_bus_set_bus_client(bus_, 1) < 0 || sd_bus_start(bus_) < 0 ||
        sd_bus_get_unique_name(bus_, &name) < 0) {
      bus_ = sd_bus_close_unref(bus_);
    }
  }
  RawPeer(const RawPeer&) = delete;
  RawPeer& operator=(const RawPeer&) = delete;
  ~RawPeer() { sd_bus_close_unref(bus_); }

  // Until then no other function may be called.
  bool Connected() const { return bus_ != nullptr; }

  // The service's id; 0 when nobody serves it.
  uint64_t Lookup() {
    BusMessage reply;
    uint64_t id = 0;
    if (sd_bus_call_method(bus_, service_.c_str(), orb_platform::kRootPath,
                           orb_platform::kInterface, "Lookup", nullptr, reply.out(), "s",
                           service_.c_str()) >= 0) {
      sd_bus_message_read(reply.get(), "t", &id);
    }
    return id;
  }
  BusMessage Call(const std::string& path, const char* member) {
    BusMessage call;
    sd_bus_message_new_method_call(bus_, call.out(), service_.c_str(), path.c_str(),
                                   orb_platform::kInterface, member);
    return call;
  }
  // A transaction's beginning: code, flags and `data`.
  BusMessage Transaction(uint64_t id, uint32_t code, const std::vector<uint8_t>& data) {
    BusMessage call =
        Call(std::string(orb_platform::kRootPath) + "/" + std::to_string(id), "Transact");
    sd_bus_message_append(call.get(), "uu", code, 0u);
    sd_bus_message_append_array(call.get(), 'y', data.data(), data.size());
    return call;
  }
  BusMessage Transaction(uint64_t id, uint32_t code, size_t zeros) {
    return Transaction(id, code, std::vector<uint8_t>(zeros));
  }
  // A transaction's end: objects that are alike, and `count` times `descriptor`.
  static void AppendObjects(const BusMessage& message, size_t objects, uint8_t kind,
                            const std::string& owner, size_t count = 0, int descriptor = -1) {
    sd_bus_message* const call = message.get();
    sd_bus_message_open_container(call, 'a', "(uyst)");
    for (size_t i = 0; i < objects; i++) {
      sd_bus_message_append(call, "(uyst)", 0u, kind, owner.c_str(), uint64_t{1});
    }
    sd_bus_message_close_container(call);
    sd_bus_message_open_container(call, 'a', "h");
    for (size_t i = 0; i < count; i++) sd_bus_message_append(call, "h", descriptor);
    sd_bus_message_close_container(call);
  }
  // "" for an answer, else the error's name.
  std::string Ask(const BusMessage& call) {
    sd_bus_error error = SD_BUS_ERROR_NULL;
    BusMessage reply;
    sd_bus_call(bus_, call.get(), 20'000'000, &error, reply.out());
    const std::string name = error.name != nullptr ? error.name : "";
    sd_bus_error_free(&error);
    return name;
  }
  // Asks for no reply. The connection keeps what the bus does not take.
  void SendOneway(const BusMessage& call) {
    sd_bus_message_set_expect_reply(call.get(), 0);
    sd_bus_send(bus_, call.get(), nullptr);
  }
  // Asks for a reply, and never reads it.
  void Send(const BusMessage& call) {
    uint64_t cookie = 0;
    sd_bus_send(bus_, call.get(), &cookie);
  }
  // False once the connection is gone.
  bool Flush() { return sd_bus_flush(bus_) >= 0; }

 private:
  const std::string service_;
  sd_bus* bus_ = nullptr;
};

}  // namespace orb::test
