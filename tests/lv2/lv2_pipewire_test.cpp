// The upmix live in PipeWire: a private daemon (its own runtime folder, no
// session manager, a null sink as the graph's driver) loads the filter-chain
// configuration that the repository ships, pw-cat plays a stereo file with
// the same tone in both channels into "Kelvane 5.1 upmix", and a second
// pw-cat records what reaches the null sink. Without a session manager the
// test does its work: it gives each node its ports and links them.
//
// Where the daemon cannot run here, the test skips and says why.
#include <gtest/gtest.h>

#include <signal.h>

#include <chrono>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/lv2/host_programs.h"

namespace {

constexpr int kRate = 48000;
constexpr double kToneHz = 1000.0;
constexpr float kToneLevel = 0.5f;
constexpr int kToneFrames = 2 * kRate;

// The daemon: the protocol, access control, nodes made by factories, links
// by hand, and a null sink of six channels that drives the graph.
const char kDaemonConfig[] = R"(context.properties = {
    core.daemon = true
    core.name = pipewire-0
    default.clock.rate = 48000
    support.dbus = false
    mem.mlock-all = false
}
context.spa-libs = {
    audio.convert.* = audioconvert/libspa-audioconvert
    support.*       = support/libspa-support
}
context.modules = [
    { name = libpipewire-module-protocol-native }
    { name = libpipewire-module-client-node }
    { name = libpipewire-module-access }
    { name = libpipewire-module-adapter }
    { name = libpipewire-module-link-factory }
    { name = libpipewire-module-spa-node-factory }
    { name = libpipewire-module-metadata }
]
context.objects = [
    {   factory = adapter
        args = {
            factory.name    = support.null-audio-sink
            node.name       = "test_null"
            media.class     = Audio/Sink
            object.linger   = true
            audio.channels  = 6
            audio.position  = [ FL FR FC LFE RL RR ]
            node.driver     = true
            priority.driver = 1000
        }
    }
]
)";

const char* const kSix[] = {"FL", "FR", "FC", "LFE", "RL", "RR"};

std::string FormatOf(int channels)
{
    std::string positions;
    for (int c = 0; c < channels; ++c)
        positions += std::string(c == 0 ? "" : ", ") + "\"" + kSix[c] + "\"";
    return "\"format\": { \"mediaType\": \"audio\", \"mediaSubtype\": \"raw\", \"format\": \"F32P\", \"rate\": " +
           std::to_string(kRate) + ", \"channels\": " + std::to_string(channels) + ", \"position\": [ " +
           positions + " ] }";
}

class PrivatePipeWire : public testing::Test {
protected:
    void SetUp() override
    {
        for (const char* program : {"pipewire", "pw-cat", "pw-cli", "pw-link"})
            if (!HaveProgram(program))
                GTEST_SKIP() << program << " is not installed (scripts/install-deps.sh installs pipewire-bin)";
        folder_ = MakeTemporaryFolder("pipewire");
        ASSERT_FALSE(folder_.empty());
        std::filesystem::create_directories(folder_ + "/run");
        std::filesystem::create_directories(folder_ + "/config/pipewire.conf.d");
        std::ofstream(folder_ + "/config/pipewire.conf") << kDaemonConfig;
        std::filesystem::copy_file(KELVANE_TEST_CONTRIB_CONF, folder_ + "/config/pipewire.conf.d/kelvane-sinks.conf");
        clients_ = {"XDG_RUNTIME_DIR=" + folder_ + "/run", "PIPEWIRE_RUNTIME_DIR=" + folder_ + "/run",
                    "PIPEWIRE_REMOTE=pipewire-0"};
        std::vector<std::string> daemon = clients_;
        daemon.push_back("PIPEWIRE_CONFIG_DIR=" + folder_ + "/config");
        daemon.push_back(std::string("LV2_PATH=") + KELVANE_TEST_LV2_PATH);
        daemonPid_ = StartProcess({"pipewire"}, daemon, folder_ + "/daemon.log");
        ASSERT_GT(daemonPid_, 0);
    }

    void TearDown() override
    {
        for (pid_t pid : clientPids_)
            StopProcess(pid, SIGINT, 3.0);
        StopProcess(daemonPid_, SIGTERM, 5.0);
        if (!folder_.empty() && !HasFailure())
            std::filesystem::remove_all(folder_);
    }

    CommandResult Client(std::vector<std::string> argv)
    {
        argv.insert(argv.begin(), {"timeout", "10"});
        return RunCommand(argv, clients_);
    }

    // Node ids by node name, from `pw-cli ls Node`.
    std::map<std::string, std::string> Nodes()
    {
        std::map<std::string, std::string> nodes;
        std::stringstream lines(Client({"pw-cli", "ls", "Node"}).output);
        std::string id;
        for (std::string line; std::getline(lines, line);) {
            const std::size_t at = line.find("id ");
            if (line.find("type PipeWire:Interface:Node") != std::string::npos && at != std::string::npos)
                id = line.substr(at + 3, line.find(',') - at - 3);
            const std::size_t name = line.find("node.name = \"");
            if (name != std::string::npos && !id.empty())
                nodes[line.substr(name + 13, line.rfind('"') - name - 13)] = id;
        }
        return nodes;
    }

    // Waits until all `names` are nodes of the daemon.
    bool WaitForNodes(const std::vector<std::string>& names, double seconds)
    {
        const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
        while (std::chrono::steady_clock::now() < end) {
            const std::map<std::string, std::string> nodes = Nodes();
            bool all = true;
            for (const std::string& n : names)
                all = all && nodes.count(n) != 0;
            if (all)
                return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        return false;
    }

    // What a session manager would do: ports in DSP form for a node.
    void ConfigurePorts(const std::string& node, const char* direction, int channels, bool monitor = false)
    {
        const std::string id = Nodes()[node];
        ASSERT_FALSE(id.empty()) << node;
        const std::string config = std::string("{ \"direction\": \"") + direction + "\", \"mode\": \"dsp\", " +
                                   (monitor ? "\"monitor\": true, " : "") + FormatOf(channels) + " }";
        const CommandResult r = Client({"pw-cli", "set-param", id, "PortConfig", config});
        ASSERT_EQ(r.status, 0) << r.output;
    }

    void Link(const std::string& from, const std::string& to)
    {
        const CommandResult r = Client({"pw-link", from, to});
        ASSERT_EQ(r.status, 0) << from << " -> " << to << ": " << r.output;
    }

    std::string folder_;
    std::vector<std::string> clients_;
    pid_t daemonPid_ = -1;
    std::vector<pid_t> clientPids_;
};

// Energy of `signal` at `hz` against all of its energy (Goertzel).
double ShareAt(const std::vector<float>& signal, double hz)
{
    const double w = 2.0 * M_PI * hz / kRate;
    double s1 = 0.0, s2 = 0.0, total = 0.0;
    for (float x : signal) {
        const double s = double(x) + 2.0 * std::cos(w) * s1 - s2;
        s2 = s1;
        s1 = s;
        total += double(x) * double(x);
    }
    const double power = s1 * s1 + s2 * s2 - 2.0 * std::cos(w) * s1 * s2;
    return total > 0.0 ? 2.0 * power / (double(signal.size()) * total) : 0.0;
}

double Rms(const std::vector<float>& signal)
{
    double sum = 0.0;
    for (float x : signal)
        sum += double(x) * double(x);
    return signal.empty() ? 0.0 : std::sqrt(sum / double(signal.size()));
}

TEST_F(PrivatePipeWire, UpmixSinkPutsACentredToneIntoTheCentreOfSixChannels)
{
    int status = 0;
    if (WaitForExit(daemonPid_, 0.5, &status)) {
        daemonPid_ = -1;
        GTEST_SKIP() << "the PipeWire daemon cannot run here:\n" << ReadTextFile(folder_ + "/daemon.log");
    }
    if (!WaitForNodes({"test_null"}, 10.0))
        GTEST_SKIP() << "the PipeWire daemon does not answer here:\n" << ReadTextFile(folder_ + "/daemon.log");
    // From here on the daemon runs: the shipped configuration must load.
    ASSERT_TRUE(WaitForNodes({"kelvane_upmix", "kelvane_upmix.output", "kelvane_headphones",
                              "kelvane_headphones.output"},
                             20.0))
        << ReadTextFile(folder_ + "/daemon.log");

    AudioFile tone;
    tone.rate = kRate;
    tone.channels.assign(2, std::vector<float>(kToneFrames));
    for (int i = 0; i < kToneFrames; ++i)
        tone.channels[0][i] = tone.channels[1][i] = kToneLevel * float(std::sin(2.0 * M_PI * kToneHz * i / kRate));
    ASSERT_TRUE(WriteFloatWav(folder_ + "/tone.wav", tone));

    ConfigurePorts("kelvane_upmix", "Input", 2);
    ConfigurePorts("kelvane_upmix.output", "Output", 6);
    ConfigurePorts("test_null", "Input", 6, true);
    const pid_t recorder = StartProcess({"pw-cat", "--record", "--rate", "48000", "--channels", "6", "--channel-map",
                                         "FL,FR,FC,LFE,RL,RR", "--format", "f32", "-P", "node.name=kelvane_test_rec",
                                         folder_ + "/recorded.wav"},
                                        clients_, folder_ + "/recorder.log");
    const pid_t player = StartProcess({"pw-cat", "--playback", "-P", "node.name=kelvane_test_play", folder_ + "/tone.wav"},
                                      clients_, folder_ + "/player.log");
    clientPids_ = {player, recorder};
    ASSERT_TRUE(WaitForNodes({"kelvane_test_rec", "kelvane_test_play"}, 10.0));
    ConfigurePorts("kelvane_test_play", "Output", 2);
    ConfigurePorts("kelvane_test_rec", "Input", 6);

    // The filter's output has six ports, one per speaker.
    const CommandResult outputs = Client({"pw-link", "--output"});
    int upmixPorts = 0;
    for (std::size_t at = 0; (at = outputs.output.find("kelvane_upmix.output:", at)) != std::string::npos; ++at)
        ++upmixPorts;
    EXPECT_EQ(upmixPorts, 6) << outputs.output;

    for (int c = 0; c < 6; ++c) {
        Link(std::string("kelvane_upmix.output:output_") + kSix[c], std::string("test_null:playback_") + kSix[c]);
        Link(std::string("test_null:monitor_") + kSix[c], std::string("kelvane_test_rec:input_") + kSix[c]);
    }
    Link("kelvane_test_play:output_FL", "kelvane_upmix:playback_FL");
    Link("kelvane_test_play:output_FR", "kelvane_upmix:playback_FR");

    ASSERT_TRUE(WaitForExit(player, 15.0, &status)) << "the tone did not play out";
    clientPids_ = {recorder};
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    StopProcess(recorder, SIGINT, 5.0);
    clientPids_.clear();

    AudioFile recorded;
    ASSERT_TRUE(ReadAudioFile(folder_ + "/recorded.wav", recorded)) << ReadTextFile(folder_ + "/recorder.log");
    ASSERT_EQ(recorded.channels.size(), 6u);
    ASSERT_GT(recorded.channels[2].size(), std::size_t(kRate));

    // A tone of the same phase in L and R is a source in the centre: the
    // steered decoder moves it to C, where it rings at its own frequency at
    // about its own level, far above both surrounds.
    const std::vector<float>& centre = recorded.channels[2];
    float peak = 0.0f;
    for (float x : centre)
        peak = std::max(peak, std::fabs(x));
    EXPECT_GT(peak, 0.5f * kToneLevel);
    // The steady part of the tone: its first and last 100 ms left out.
    std::size_t first = 0, last = centre.size();
    while (first < last && std::fabs(centre[first]) < 0.25f * peak)
        ++first;
    while (last > first && std::fabs(centre[last - 1]) < 0.25f * peak)
        --last;
    ASSERT_GT(last - first, std::size_t(kRate)) << "the tone is shorter than a second";
    const std::vector<float> steady(centre.begin() + long(first) + kRate / 10, centre.begin() + long(last) - kRate / 10);
    EXPECT_GT(ShareAt(steady, kToneHz), 0.9);
    EXPECT_GT(Rms(centre), 10.0 * Rms(recorded.channels[4]));
    EXPECT_GT(Rms(centre), 10.0 * Rms(recorded.channels[5]));
    EXPECT_GT(Rms(centre), Rms(recorded.channels[0]));
    EXPECT_GT(Rms(centre), Rms(recorded.channels[1]));
}

}  // namespace
