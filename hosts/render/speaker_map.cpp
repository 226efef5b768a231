// The speakers of the processor's output channels.
#include "hosts/render/speaker_map.h"

std::vector<int> SpeakerMap(int channels)
{
    if (channels == 2)
        return {SF_CHANNEL_MAP_LEFT, SF_CHANNEL_MAP_RIGHT};
    if (channels == 6)
        return {SF_CHANNEL_MAP_LEFT, SF_CHANNEL_MAP_RIGHT,     SF_CHANNEL_MAP_CENTER,
                SF_CHANNEL_MAP_LFE,  SF_CHANNEL_MAP_REAR_LEFT, SF_CHANNEL_MAP_REAR_RIGHT};
    return {};
}

void SetSpeakerMap(SNDFILE* file, int format, int channels)
{
    std::vector<int> map = SpeakerMap(channels);
    const int major = format & SF_FORMAT_TYPEMASK;
    if (!map.empty() && major != SF_FORMAT_WAV && major != SF_FORMAT_FLAC)
        sf_command(file, SFC_SET_CHANNEL_MAP_INFO, map.data(), static_cast<int>(map.size() * sizeof(int)));
}
