// The tests' lilv host. The bundle's path in the build tree is compiled in
// (KELVANE_TEST_LV2_BUNDLE, a folder ending in a slash).
#include "tests/lv2/lv2_host.h"

#include <algorithm>
#include <cstring>

namespace {

const char* const kSlotNames[6] = {"l", "r", "c", "lfe", "sl", "sr"};

float NodeFloat(const LilvNode* node, float fallback)
{
    return node != nullptr && lilv_node_is_float(node) ? lilv_node_as_float(node)
           : node != nullptr && lilv_node_is_int(node) ? float(lilv_node_as_int(node))
                                                       : fallback;
}

}  // namespace

int SlotOfSymbol(const std::string& symbol)
{
    const std::size_t underscore = symbol.find('_');
    if (underscore == std::string::npos)
        return -1;
    const std::string name = symbol.substr(underscore + 1);
    for (int s = 0; s < 6; ++s)
        if (name == kSlotNames[s])
            return s;
    return -1;
}

Lv2World::Lv2World() : world_(lilv_world_new())
{
    LilvNode* bundle = lilv_new_file_uri(world_, nullptr, KELVANE_TEST_LV2_BUNDLE);
    lilv_world_load_specifications(world_);
    lilv_world_load_plugin_classes(world_);
    lilv_world_load_bundle(world_, bundle);
    lilv_node_free(bundle);
}

Lv2World::~Lv2World()
{
    lilv_world_free(world_);
}

const LilvPlugin* Lv2World::Plugin(const char* uri) const
{
    LilvNode* node = lilv_new_uri(world_, uri);
    const LilvPlugin* plugin = lilv_plugins_get_by_uri(lilv_world_get_all_plugins(world_), node);
    lilv_node_free(node);
    return plugin;
}

HostedPlugin::HostedPlugin(const Lv2World& world, const char* uri, double rate, uint32_t largestBlock)
    : instance_(nullptr), active_(false), largestBlock_(largestBlock)
{
    const LilvPlugin* plugin = world.Plugin(uri);
    if (plugin == nullptr)
        return;
    LilvNode* audioClass = lilv_new_uri(world.world(), LILV_URI_AUDIO_PORT);
    LilvNode* inputClass = lilv_new_uri(world.world(), LILV_URI_INPUT_PORT);
    const uint32_t count = lilv_plugin_get_num_ports(plugin);
    ports_.resize(count);
    for (uint32_t i = 0; i < count; ++i) {
        const LilvPort* port = lilv_plugin_get_port_by_index(plugin, i);
        HostedPort& p = ports_[i];
        p.symbol = lilv_node_as_string(lilv_port_get_symbol(plugin, port));
        p.index = i;
        p.audio = lilv_port_is_a(plugin, port, audioClass);
        p.input = lilv_port_is_a(plugin, port, inputClass);
        LilvNode *def = nullptr, *min = nullptr, *max = nullptr;
        lilv_port_get_range(plugin, port, &def, &min, &max);
        p.defaultValue = NodeFloat(def, 0.0f);
        p.minimum = NodeFloat(min, 0.0f);
        p.maximum = NodeFloat(max, 0.0f);
        lilv_node_free(def);
        lilv_node_free(min);
        lilv_node_free(max);
        p.value = p.defaultValue;
        if (p.audio)
            p.buffer.assign(largestBlock, 0.0f);
    }
    lilv_node_free(audioClass);
    lilv_node_free(inputClass);

    instance_ = lilv_plugin_instantiate(plugin, rate, nullptr);
    if (instance_ == nullptr)
        return;
    for (HostedPort& p : ports_)
        lilv_instance_connect_port(instance_, p.index, p.audio ? static_cast<void*>(p.buffer.data()) : &p.value);
    Activate();
}

HostedPlugin::~HostedPlugin()
{
    if (instance_ == nullptr)
        return;
    Deactivate();
    lilv_instance_free(instance_);
}

HostedPort* HostedPlugin::Port(const std::string& symbol)
{
    for (HostedPort& p : ports_)
        if (p.symbol == symbol)
            return &p;
    return nullptr;
}

void HostedPlugin::Set(const std::string& symbol, float value)
{
    Port(symbol)->value = value;
}

float HostedPlugin::Latency()
{
    HostedPort* p = Port("latency");
    return p != nullptr ? p->value : 0.0f;
}

void HostedPlugin::Activate()
{
    if (!active_)
        lilv_instance_activate(instance_);
    active_ = true;
}

void HostedPlugin::Deactivate()
{
    if (active_)
        lilv_instance_deactivate(instance_);
    active_ = false;
}

void HostedPlugin::Run(uint32_t frames)
{
    lilv_instance_run(instance_, frames);
}

SlotSignals HostedPlugin::Process(const SlotSignals& input, const std::vector<uint32_t>& blocks)
{
    std::size_t total = 0;
    for (const std::vector<float>& signal : input)
        total = std::max(total, signal.size());
    SlotSignals output;
    for (const HostedPort& p : ports_)
        if (p.audio && !p.input)
            output[SlotOfSymbol(p.symbol)].reserve(total);

    std::size_t at = 0;
    for (std::size_t b = 0; at < total; ++b) {
        const uint32_t n = uint32_t(std::min<std::size_t>(blocks[b % blocks.size()], total - at));
        for (HostedPort& p : ports_) {
            if (!p.audio || !p.input)
                continue;
            const std::vector<float>& source = input[SlotOfSymbol(p.symbol)];
            for (uint32_t i = 0; i < n; ++i)
                p.buffer[i] = at + i < source.size() ? source[at + i] : 0.0f;
        }
        Run(n);
        for (const HostedPort& p : ports_)
            if (p.audio && !p.input)
                output[SlotOfSymbol(p.symbol)].insert(output[SlotOfSymbol(p.symbol)].end(), p.buffer.begin(),
                                                      p.buffer.begin() + n);
        at += n;
    }
    return output;
}
