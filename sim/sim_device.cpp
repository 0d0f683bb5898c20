// The simulated device's commands, values and status bytes.
#include "sim/sim_device.h"

#include <algorithm>
#include <cmath>
#include <numbers>

#include "sim/sim_data.h"

namespace velmora::sim {
namespace {

constexpr float kFixedCurrentMa = 4.0f;
constexpr float kLowSaturationMa = 3.8f;
constexpr float kHighSaturationMa = 20.5f;
constexpr uint32_t kNotANumber = 0x7FA00000u;
constexpr uint8_t kVarStatusGood = 0xC0;
constexpr uint8_t kVarStatusBadConstant = 0x30;
constexpr uint8_t kProfileProcessDevice = 1;

size_t MasterIndex(Master master) { return master == Master::kPrimary ? 1 : 0; }

Reply Error(uint8_t code) {
  Reply reply;
  reply.response_code = code;
  return reply;
}

}  // namespace

DeviceConfig DefaultDevice(size_t index) {
  DeviceConfig config;
  config.polling_address = static_cast<uint8_t>(index % 64);
  config.device_id = static_cast<uint32_t>(0x5A0001 + index) & 0xFFFFFFu;
  config.tag = "SIM" + std::to_string(index);
  config.long_tag = "VELMORA SIMULATED DEVICE " + std::to_string(index);
  // A device on a multidrop line (address other than 0) parks its current at 4 mA.
  config.loop_current_enabled = config.polling_address == 0;
  config.variables[0].base += static_cast<float>(index) * 10.0f;
  return config;
}

std::vector<uint8_t> Reply::FrameData() const {
  std::vector<uint8_t> out;
  out.reserve(2 + data.size());
  out.push_back(response_code);
  out.push_back(device_status);
  PutBytes(out, data);
  return out;
}

Device::Device(DeviceConfig config) : config_(std::move(config)) {
  config_.polling_address &= 0x3F;
  config_.device_id &= 0xFFFFFFu;
  cold_start_ = {config_.cold_start, config_.cold_start};
  bool any_status =
      std::any_of(config_.additional_status.begin(), config_.additional_status.end(), [](uint8_t b) { return b != 0; });
  more_status_ = {any_status, any_status};
}

std::array<uint8_t, 5> Device::LongAddress() const {
  return {static_cast<uint8_t>(config_.manufacturer_id & 0x3F), config_.device_type,
          static_cast<uint8_t>(config_.device_id >> 16), static_cast<uint8_t>(config_.device_id >> 8),
          static_cast<uint8_t>(config_.device_id)};
}

bool Device::IsAddressedBy(bool long_frame, const uint8_t *address, uint8_t command) const {
  if (!long_frame) {
    if ((address[0] & 0x3F) != config_.polling_address) return false;
    return command == 0 || config_.short_frame_all_commands;
  }
  std::array<uint8_t, 5> mine = LongAddress();
  bool match = (address[0] & 0x3F) == mine[0];
  bool broadcast = (address[0] & 0x3F) == 0;
  for (size_t i = 1; i < 5; ++i) {
    match = match && address[i] == mine[i];
    broadcast = broadcast && address[i] == 0;
  }
  if (broadcast) return command == 11 || command == 21;
  return match;
}

bool Device::WouldAnswer(uint8_t command, const std::vector<uint8_t> &data) const {
  if (command == 11)
    return data.size() >= 6 && std::equal(data.begin(), data.begin() + 6, PackAscii(config_.tag, 8).begin());
  if (command == 21)
    return data.size() >= 32 && TrimRight(std::string(data.begin(), data.begin() + 32)) == TrimRight(config_.long_tag);
  return true;
}

float Device::VariableValue(size_t index, uint64_t now_us) const {
  if (index >= config_.variables.size()) return 0.0f;
  const VariableConfig &variable = config_.variables[index];
  uint32_t period = variable.period_ms ? variable.period_ms : 1;
  double phase = static_cast<double>((now_us / 1000) % period) / period;
  return static_cast<float>(variable.base + variable.amplitude * std::sin(2.0 * std::numbers::pi * phase));
}

float Device::PercentOfRange(uint64_t now_us) const {
  float span = config_.upper_range - config_.lower_range;
  if (span == 0.0f) return 0.0f;
  return (VariableValue(0, now_us) - config_.lower_range) / span * 100.0f;
}

float Device::LoopCurrent(uint64_t now_us) const {
  if (!config_.loop_current_enabled) return kFixedCurrentMa;
  float current = 4.0f + 16.0f * PercentOfRange(now_us) / 100.0f;
  return std::clamp(current, kLowSaturationMa, kHighSaturationMa);
}

uint8_t Device::StatusFor(Master master, uint64_t now_us) const {
  size_t who = MasterIndex(master);
  uint8_t status = 0;
  if (config_.malfunction) status |= kStatusMalfunction;
  if (config_changed_[who]) status |= kStatusConfigChanged;
  if (cold_start_[who]) status |= kStatusColdStart;
  if (more_status_[who]) status |= kStatusMoreStatus;
  if (!config_.loop_current_enabled) {
    status |= kStatusCurrentFixed;
  } else {
    float current = LoopCurrent(now_us);
    if (current <= kLowSaturationMa || current >= kHighSaturationMa) status |= kStatusCurrentSaturated;
  }
  float pv = VariableValue(0, now_us);
  if (pv > config_.upper_limit || pv < config_.lower_limit) status |= kStatusPvOutOfLimits;
  return status;
}

void Device::SetAdditionalStatus(const std::array<uint8_t, 25> &status) {
  if (status == config_.additional_status) return;
  config_.additional_status = status;
  more_status_ = {true, true};
}

void Device::NoteConfigChange() {
  ++change_counter_;
  config_changed_ = {true, true};
}

std::vector<uint8_t> Device::IdentityData() const {
  std::vector<uint8_t> out;
  PutU8(out, 254);
  PutU8(out, config_.manufacturer_id);
  PutU8(out, config_.device_type);
  PutU8(out, config_.request_preambles);
  PutU8(out, config_.universal_revision);
  PutU8(out, config_.device_revision);
  PutU8(out, config_.software_revision);
  PutU8(out, static_cast<uint8_t>((config_.hardware_revision << 3) & 0xF8));  // signalling code 0
  PutU8(out, 0);                                                              // flags
  PutU24(out, config_.device_id);
  if (config_.universal_revision < 6) return out;
  PutU8(out, config_.response_preambles);
  PutU8(out, static_cast<uint8_t>(config_.variables.size() - 1));
  PutU16(out, change_counter_);
  PutU8(out, config_.extended_status);
  if (config_.universal_revision < 7) return out;
  PutU16(out, config_.manufacturer_id);
  PutU16(out, config_.manufacturer_id);  // private label distributor: the maker itself
  PutU8(out, kProfileProcessDevice);
  return out;
}

void Device::PutVariableSlot(std::vector<uint8_t> &out, uint8_t code, uint64_t now_us) const {
  size_t index = code;
  if (code >= kVarPrimary && code < kVarPrimary + 4) index = code - kVarPrimary;
  PutU8(out, code);
  if (index < config_.variables.size()) {
    const VariableConfig &variable = config_.variables[index];
    PutU8(out, variable.classification);
    PutU8(out, variable.unit);
    PutFloat(out, VariableValue(index, now_us));
    PutU8(out, kVarStatusGood);
  } else if (code == kVarPercentRange || code == kVarLoopCurrent) {
    PutU8(out, 0);
    PutU8(out, code == kVarPercentRange ? kUnitPercent : kUnitMilliAmps);
    PutFloat(out, code == kVarPercentRange ? PercentOfRange(now_us) : LoopCurrent(now_us));
    PutU8(out, kVarStatusGood);
  } else {
    PutU8(out, 0);
    PutU8(out, kUnitNotUsed);
    PutU32(out, kNotANumber);
    PutU8(out, kVarStatusBadConstant);
  }
}

std::optional<Reply> Device::Answer(uint8_t command, const std::vector<uint8_t> &data, Master master, uint64_t now_us) {
  bool silent = false;
  Reply reply = Run(command, data, master, now_us, true, &silent);
  if (silent) return std::nullopt;
  // The status byte reflects what the command just did (a write sets "configuration changed").
  reply.device_status = StatusFor(master, now_us);
  cold_start_[MasterIndex(master)] = false;
  return reply;
}

Reply Device::BusyReply(Master master, uint64_t now_us) {
  Reply reply = Error(kBusy);
  reply.device_status = StatusFor(master, now_us);
  cold_start_[MasterIndex(master)] = false;
  return reply;
}

Reply Device::BurstReply(Master master, uint64_t now_us) {
  bool silent = false;
  std::vector<uint8_t> request = config_.burst.request_data;
  if (config_.burst.command == 9 && request.empty()) request = {0, 1, 2, 3};
  Reply reply = Run(config_.burst.command, request, master, now_us, false, &silent);
  reply.device_status = StatusFor(master, now_us);
  return reply;
}

Reply Device::Run(uint8_t command, const std::vector<uint8_t> &data, Master master, uint64_t now_us, bool write_allowed,
                  bool *silent) {
  Reply reply;
  std::vector<uint8_t> &out = reply.data;
  size_t who = MasterIndex(master);
  auto writable = [&]() -> std::optional<uint8_t> {
    if (!write_allowed) return kNotImplemented;
    if (config_.write_protected) return kWriteProtected;
    return std::nullopt;
  };

  switch (command) {
    case 0:
      out = IdentityData();
      break;
    case 1:
      PutU8(out, config_.variables[0].unit);
      PutFloat(out, VariableValue(0, now_us));
      break;
    case 2:
      PutFloat(out, LoopCurrent(now_us));
      PutFloat(out, PercentOfRange(now_us));
      break;
    case 3:
      PutFloat(out, LoopCurrent(now_us));
      for (size_t i = 0; i < config_.variables.size(); ++i) {
        PutU8(out, config_.variables[i].unit);
        PutFloat(out, VariableValue(i, now_us));
      }
      break;
    case 6: {
      if (data.empty()) return Error(kTooFewDataBytes);
      uint8_t limit = config_.universal_revision >= 6 ? 63 : 15;
      if (data[0] > limit) return Error(kInvalidSelection);
      if (data.size() >= 2 && data[1] > 1) return Error(kInvalidMode);
      if (auto refused = writable()) return Error(*refused);
      config_.polling_address = data[0];
      // Without a mode byte the older rule holds: address 0 drives the current, others park it.
      config_.loop_current_enabled = data.size() >= 2 ? data[1] == 1 : data[0] == 0;
      NoteConfigChange();
      PutU8(out, config_.polling_address);
      if (config_.universal_revision >= 6) PutU8(out, config_.loop_current_enabled ? 1 : 0);
      break;
    }
    case 7:
      PutU8(out, config_.polling_address);
      PutU8(out, config_.loop_current_enabled ? 1 : 0);
      break;
    case 8:
      for (const VariableConfig &variable : config_.variables) PutU8(out, variable.classification);
      break;
    case 9: {
      if (data.empty()) return Error(kTooFewDataBytes);
      PutU8(out, config_.extended_status);
      size_t slots = std::min<size_t>(data.size(), 8);
      for (size_t i = 0; i < slots; ++i) PutVariableSlot(out, data[i], now_us);
      // Time of day in 1/32 ms.
      PutU32(out, static_cast<uint32_t>((now_us / 1000) % 86400000u * 32u));
      break;
    }
    case 11:
    case 21:
      if (!WouldAnswer(command, data)) {
        *silent = true;
        return reply;
      }
      out = IdentityData();
      break;
    case 12:
      out = PackAscii(config_.message, 32);
      break;
    case 13:
      out = PackAscii(config_.tag, 8);
      PutBytes(out, PackAscii(config_.descriptor, 16));
      PutU8(out, config_.date.day);
      PutU8(out, config_.date.month);
      PutU8(out, config_.date.year);
      break;
    case 14:
      PutU24(out, config_.transducer_serial);
      PutU8(out, config_.range_unit);
      PutFloat(out, config_.upper_limit);
      PutFloat(out, config_.lower_limit);
      PutFloat(out, config_.min_span);
      break;
    case 15:
      PutU8(out, config_.alarm_selection);
      PutU8(out, config_.transfer_function);
      PutU8(out, config_.range_unit);
      PutFloat(out, config_.upper_range);
      PutFloat(out, config_.lower_range);
      PutFloat(out, config_.damping_s);
      PutU8(out, config_.write_protected ? 1 : 0);
      PutU8(out, kUnitNotUsed);
      PutU8(out, 0);  // analog channel flags
      break;
    case 16:
      PutU24(out, config_.final_assembly);
      break;
    case 17:
      if (data.size() < 24) return Error(kTooFewDataBytes);
      if (auto refused = writable()) return Error(*refused);
      config_.message = UnpackAscii(data.data(), 24);
      NoteConfigChange();
      out = PackAscii(config_.message, 32);
      break;
    case 18:
      if (data.size() < 21) return Error(kTooFewDataBytes);
      if (auto refused = writable()) return Error(*refused);
      config_.tag = UnpackAscii(data.data(), 6);
      config_.descriptor = UnpackAscii(data.data() + 6, 12);
      config_.date = Date{data[18], data[19], data[20]};
      NoteConfigChange();
      out.assign(data.begin(), data.begin() + 21);
      break;
    case 19:
      if (data.size() < 3) return Error(kTooFewDataBytes);
      if (auto refused = writable()) return Error(*refused);
      config_.final_assembly = GetU24(data.data());
      NoteConfigChange();
      PutU24(out, config_.final_assembly);
      break;
    case 20:
      out = FixedText(config_.long_tag, 32);
      break;
    case 22:
      if (data.size() < 32) return Error(kTooFewDataBytes);
      if (auto refused = writable()) return Error(*refused);
      config_.long_tag = TrimRight(std::string(data.begin(), data.begin() + 32));
      NoteConfigChange();
      out = FixedText(config_.long_tag, 32);
      break;
    case 38:
      if (!write_allowed) return Error(kNotImplemented);
      if (data.size() == 1) return Error(kTooFewDataBytes);
      if (data.size() >= 2 && GetU16(data.data()) != change_counter_) return Error(kCounterMismatch);
      config_changed_[who] = false;
      if (config_.universal_revision >= 7) PutU16(out, change_counter_);
      break;
    case 48:
      out.assign(config_.additional_status.begin(), config_.additional_status.end());
      if (write_allowed) more_status_[who] = false;
      break;
    case 108:
      if (data.empty()) return Error(kTooFewDataBytes);
      if (data[0] != 1 && data[0] != 2 && data[0] != 3 && data[0] != 9 && data[0] != 48)
        return Error(kInvalidSelection);
      if (auto refused = writable()) return Error(*refused);
      config_.burst.command = data[0];
      NoteConfigChange();
      PutU8(out, data[0]);
      break;
    case 109:
      if (data.empty()) return Error(kTooFewDataBytes);
      if (data[0] > 1) return Error(kInvalidSelection);
      if (auto refused = writable()) return Error(*refused);
      config_.burst.enabled = data[0] == 1;
      NoteConfigChange();
      PutU8(out, data[0]);
      break;
    default:
      return Error(kNotImplemented);
  }
  return reply;
}

}  // namespace velmora::sim
