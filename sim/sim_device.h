// One simulated HART field device: its identity, its configuration as the universal commands
// read and write it, process variables that move slowly with time, and the status bytes that go
// with every reply.
#ifndef VELMORA_SIM_SIM_DEVICE_H
#define VELMORA_SIM_SIM_DEVICE_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "sim/sim_fault.h"

namespace velmora::sim {

// The master a frame comes from or goes to, from bit 7 of the first address byte.
enum class Master : uint8_t { kSecondary = 0, kPrimary = 1 };
inline Master MasterOf(uint8_t first_address_byte) {
  return (first_address_byte & 0x80) ? Master::kPrimary : Master::kSecondary;
}

// Response codes (first status byte) the device uses.
inline constexpr uint8_t kSuccess = 0;
inline constexpr uint8_t kInvalidSelection = 2;
inline constexpr uint8_t kTooFewDataBytes = 5;
inline constexpr uint8_t kWriteProtected = 7;
inline constexpr uint8_t kCounterMismatch = 9;
inline constexpr uint8_t kInvalidMode = 12;
inline constexpr uint8_t kBusy = 32;
inline constexpr uint8_t kNotImplemented = 64;

// Bits of the second status byte.
inline constexpr uint8_t kStatusMalfunction = 0x80;
inline constexpr uint8_t kStatusConfigChanged = 0x40;
inline constexpr uint8_t kStatusColdStart = 0x20;
inline constexpr uint8_t kStatusMoreStatus = 0x10;
inline constexpr uint8_t kStatusCurrentFixed = 0x08;
inline constexpr uint8_t kStatusCurrentSaturated = 0x04;
inline constexpr uint8_t kStatusPvOutOfLimits = 0x01;

// Device variable codes with a fixed meaning, beside 0..3 for the device's own variables.
inline constexpr uint8_t kVarPercentRange = 243;
inline constexpr uint8_t kVarLoopCurrent = 244;
inline constexpr uint8_t kVarPrimary = 245;  // 246, 247, 248: secondary to quaternary

// Unit codes used by the defaults.
inline constexpr uint8_t kUnitKiloPascal = 12;
inline constexpr uint8_t kUnitDegreesC = 32;
inline constexpr uint8_t kUnitMilliAmps = 39;
inline constexpr uint8_t kUnitPercent = 57;
inline constexpr uint8_t kUnitVolts = 58;
inline constexpr uint8_t kUnitNotUsed = 250;

struct Date {
  uint8_t day = 1;
  uint8_t month = 1;
  uint8_t year = 125;  // years since 1900
};

// A variable that moves as base + amplitude * sin(2 pi t / period).
struct VariableConfig {
  uint8_t unit = kUnitKiloPascal;
  float base = 0.0f;
  float amplitude = 0.0f;
  uint32_t period_ms = 60000;
  uint8_t classification = 0;
};

// Which master the burst frames are addressed to; alternating gives each master its turn.
enum class BurstTarget { kPrimary, kSecondary, kAlternate };

struct BurstConfig {
  bool enabled = false;
  uint8_t command = 1;
  uint32_t period_ms = 1000;
  // Quiet the device leaves on the line before a burst frame, after any traffic, so that a
  // master can get a request in between.
  uint32_t min_gap_ms = 75;
  BurstTarget target = BurstTarget::kAlternate;
  bool long_frame = true;
  std::vector<uint8_t> request_data;  // command 9: the device variable codes
};

struct DeviceConfig {
  uint8_t polling_address = 0;
  uint8_t manufacturer_id = 0x60;
  uint8_t device_type = 0x1A;
  uint32_t device_id = 1;  // 24 bits
  std::string tag = "SIM0";
  std::string long_tag = "VELMORA SIMULATED DEVICE 0";
  std::string message = "SIMULATED FIELD DEVICE";
  std::string descriptor = "SIMULATOR";
  Date date;
  uint32_t final_assembly = 0x000100;
  uint8_t universal_revision = 7;
  uint8_t device_revision = 1;
  uint8_t software_revision = 1;
  uint8_t hardware_revision = 1;
  uint8_t request_preambles = 5;   // what command 0 asks of masters
  uint8_t response_preambles = 5;  // what the device sends before each frame
  bool loop_current_enabled = true;
  bool write_protected = false;
  // Older devices answer every command in a short frame; newer ones only command 0.
  bool short_frame_all_commands = false;
  bool cold_start = true;
  bool malfunction = false;
  std::array<VariableConfig, 4> variables{{
      {kUnitKiloPascal, 100.0f, 5.0f, 60000, 65},
      {kUnitDegreesC, 21.5f, 0.5f, 300000, 64},
      {kUnitDegreesC, 30.0f, 1.0f, 120000, 64},
      {kUnitVolts, 24.0f, 0.1f, 90000, 0},
  }};
  uint8_t range_unit = kUnitKiloPascal;
  float upper_range = 200.0f;
  float lower_range = 0.0f;
  float damping_s = 0.5f;
  uint8_t alarm_selection = 0;
  uint8_t transfer_function = 0;
  uint32_t transducer_serial = 0x00A5A5;
  float upper_limit = 400.0f;
  float lower_limit = -100.0f;
  float min_span = 10.0f;
  uint8_t extended_status = 0;
  std::array<uint8_t, 25> additional_status{};  // command 48
  BurstConfig burst;
};

// Defaults for the device at position `index` of a line: polling address, device id and tags
// differ, so that several devices on one line can be told apart.
DeviceConfig DefaultDevice(size_t index);

// What a device answers, before anything the line does to it.
struct Reply {
  uint8_t response_code = kSuccess;
  uint8_t device_status = 0;
  std::vector<uint8_t> data;  // after the two status bytes

  // The frame's data field: both status bytes, then the data.
  std::vector<uint8_t> FrameData() const;
};

class Device {
 public:
  explicit Device(DeviceConfig config);

  // The configuration as it stands now, after whatever the masters wrote.
  const DeviceConfig &Config() const { return config_; }
  uint8_t PollingAddress() const { return config_.polling_address; }
  // The five address bytes of a long frame, master and burst bits clear.
  std::array<uint8_t, 5> LongAddress() const;
  uint16_t ConfigChangeCounter() const { return change_counter_; }

  // Whether a request is for this device. The all-zero long address reaches every device, for
  // commands 11 and 21 only; a short frame reaches it for command 0 only, unless the device
  // is configured like the older ones.
  bool IsAddressedBy(bool long_frame, const uint8_t *address, uint8_t command) const;

  // False for commands 11 and 21 whose tag is not this device's: the device stays silent.
  bool WouldAnswer(uint8_t command, const std::vector<uint8_t> &data) const;
  // Carries out a request and gives the reply; none when the device stays silent (commands 11
  // and 21 whose tag is not this device's).
  std::optional<Reply> Answer(uint8_t command, const std::vector<uint8_t> &data, Master master, uint64_t now_us);
  // A busy reply: nothing is carried out.
  Reply BusyReply(Master master, uint64_t now_us);
  // The data of the burst command as it stands at now_us; nothing is written.
  Reply BurstReply(Master master, uint64_t now_us);

  // Process values at a moment.
  float VariableValue(size_t index, uint64_t now_us) const;
  float LoopCurrent(uint64_t now_us) const;
  float PercentOfRange(uint64_t now_us) const;
  // The second status byte this master would see at now_us.
  uint8_t StatusFor(Master master, uint64_t now_us) const;

  // Burst mode, as set by configuration or by commands 108 and 109.
  const BurstConfig &Burst() const { return config_.burst; }
  void SetBurst(const BurstConfig &burst) { config_.burst = burst; }

  void SetMalfunction(bool on) { config_.malfunction = on; }
  void SetWriteProtected(bool on) { config_.write_protected = on; }
  // New additional status; masters learn of it through the "more status available" bit.
  void SetAdditionalStatus(const std::array<uint8_t, 25> &status);

  FaultList &Faults() { return faults_; }
  void AddFault(const Fault &fault) { faults_.Add(fault); }

 private:
  Reply Run(uint8_t command, const std::vector<uint8_t> &data, Master master, uint64_t now_us, bool write_allowed,
            bool *silent);
  std::vector<uint8_t> IdentityData() const;
  void PutVariableSlot(std::vector<uint8_t> &out, uint8_t code, uint64_t now_us) const;
  void NoteConfigChange();

  DeviceConfig config_;
  uint16_t change_counter_ = 0;
  std::array<bool, 2> cold_start_{};
  std::array<bool, 2> config_changed_{};
  std::array<bool, 2> more_status_{};
  FaultList faults_;
};

}  // namespace velmora::sim

#endif
