// A minimal LV2 host for the tests, built on lilv as real hosts are: it
// discovers the bundle from its Turtle files, learns every port's index,
// range and default from them, instantiates the plug-in's library and runs
// it in blocks of the sizes a test chooses. Nothing of the plug-in's own
// code is consulted.
#pragma once

#include <lilv/lilv.h>

#include <array>
#include <cstdint>
#include <string>
#include <vector>

// One signal per Frame6 slot (L, R, C, LFE, SL, SR); an unused slot is empty
// or silent.
using SlotSignals = std::array<std::vector<float>, 6>;

// The slot of an audio port symbol ("in_sl", "out_c" ...), or -1.
int SlotOfSymbol(const std::string& symbol);

// The bundle of this build, as lilv loads it.
class Lv2World {
public:
    Lv2World();
    ~Lv2World();
    Lv2World(const Lv2World&) = delete;
    Lv2World& operator=(const Lv2World&) = delete;

    LilvWorld* world() const { return world_; }
    // The plug-in of a URI, or null when the bundle does not describe it.
    const LilvPlugin* Plugin(const char* uri) const;

private:
    LilvWorld* world_;
};

struct HostedPort {
    std::string symbol;
    uint32_t index;
    bool audio;
    bool input;
    float defaultValue;
    float minimum;
    float maximum;
    float value;                // a control's value, connected by address
    std::vector<float> buffer;  // an audio port's buffer, the largest block long
};

class HostedPlugin {
public:
    // Instantiates `uri` at `rate` with buffers for blocks of up to
    // `largestBlock` frames, every control at its default, and activates it.
    HostedPlugin(const Lv2World& world, const char* uri, double rate, uint32_t largestBlock);
    ~HostedPlugin();
    HostedPlugin(const HostedPlugin&) = delete;
    HostedPlugin& operator=(const HostedPlugin&) = delete;

    bool ok() const { return instance_ != nullptr; }
    HostedPort* Port(const std::string& symbol);
    // Sets a control input by its symbol; the port must exist.
    void Set(const std::string& symbol, float value);
    // The value of the latency output after the last run.
    float Latency();
    void Activate();
    void Deactivate();

    // Runs the whole input (by slot; every connected input port reads its
    // slot, or silence when the slot is empty) in host blocks of `blocks`
    // frames, cycled, and returns each output port's signal in its slot.
    SlotSignals Process(const SlotSignals& input, const std::vector<uint32_t>& blocks);
    // One run of `frames` frames on the buffers as they stand.
    void Run(uint32_t frames);

private:
    LilvInstance* instance_;
    bool active_;
    uint32_t largestBlock_;
    std::vector<HostedPort> ports_;
};
