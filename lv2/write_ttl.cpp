// Build-time writer of the bundle's Turtle files: manifest.ttl, which names
// the three plug-ins and their shared library, and one description per
// plug-in with every port of the port table.
//
//   kelvane-lv2-ttl BUNDLE_DIR LIBRARY_FILE_NAME MINOR MICRO
#include <cstdio>
#include <cstdlib>
#include <string>

#include "lv2/plugin_ports.h"
#include "product.h"

namespace {

const char kPrefixes[] =
    "@prefix doap: <http://usefulinc.com/ns/doap#> .\n"
    "@prefix foaf: <http://xmlns.com/foaf/0.1/> .\n"
    "@prefix lv2: <http://lv2plug.in/ns/lv2core#> .\n"
    "@prefix rdf: <http://www.w3.org/1999/02/22-rdf-syntax-ns#> .\n"
    "@prefix rdfs: <http://www.w3.org/2000/01/rdf-schema#> .\n"
    "@prefix units: <http://lv2plug.in/ns/extensions/units#> .\n\n";

const char* UnitName(PortUnit unit)
{
    switch (unit) {
    case PortUnit::Milliseconds:
        return "units:ms";
    case PortUnit::Percent:
        return "units:pc";
    case PortUnit::Decibels:
        return "units:db";
    case PortUnit::Hertz:
        return "units:hz";
    case PortUnit::None:
        break;
    }
    return nullptr;
}

void WritePort(std::FILE* f, const PortRow& port, uint32_t index)
{
    const char* classes = "lv2:InputPort, lv2:AudioPort";
    if (port.kind == PortKind::AudioOut)
        classes = "lv2:OutputPort, lv2:AudioPort";
    else if (port.kind == PortKind::ControlIn)
        classes = "lv2:InputPort, lv2:ControlPort";
    else if (port.kind == PortKind::LatencyOut)
        classes = "lv2:OutputPort, lv2:ControlPort";
    std::fprintf(f, "        a %s ;\n        lv2:index %u ;\n        lv2:symbol \"%s\" ;\n        lv2:name \"%s\"",
                 classes, index, port.symbol, port.name);

    if (port.kind == PortKind::LatencyOut) {
        std::fprintf(f, " ;\n        lv2:designation lv2:latency ;\n"
                        "        lv2:portProperty lv2:reportsLatency, lv2:integer ;\n"
                        "        lv2:minimum %d ;\n        lv2:maximum %d",
                     port.minimum, port.maximum);
    } else if (port.kind == PortKind::ControlIn) {
        std::fprintf(f, " ;\n        lv2:default %d ;\n        lv2:minimum %d ;\n        lv2:maximum %d",
                     port.defaultValue, port.minimum, port.maximum);
        if (port.form == ControlForm::Toggle)
            std::fprintf(f, " ;\n        lv2:portProperty lv2:integer, lv2:toggled");
        else if (port.form == ControlForm::Enumeration)
            std::fprintf(f, " ;\n        lv2:portProperty lv2:integer, lv2:enumeration");
        else
            std::fprintf(f, " ;\n        lv2:portProperty lv2:integer");
        if (const char* unit = UnitName(port.unit))
            std::fprintf(f, " ;\n        units:unit %s", unit);
        for (uint32_t k = 0; k < port.pointCount; ++k)
            std::fprintf(f, "%s\n            rdfs:label \"%s\" ;\n            rdf:value %d\n        ]",
                         k == 0 ? " ;\n        lv2:scalePoint [" : " , [", port.points[k].label,
                         port.points[k].value);
    }
}

bool WritePlugin(const std::string& bundle, const PluginRow& plugin, int minor, int micro)
{
    const std::string path = bundle + "/" + plugin.ttlFile;
    std::FILE* f = std::fopen(path.c_str(), "w");
    if (f == nullptr)
        return false;
    std::fputs(kPrefixes, f);
    std::fprintf(f,
                 "<%s>\n"
                 "    a lv2:Plugin, lv2:SpatialPlugin, doap:Project ;\n"
                 "    doap:name \"%s\" ;\n"
                 "    doap:maintainer [ foaf:name \"" KELVANE_MAKER "\" ] ;\n"
                 "    lv2:minorVersion %d ;\n"
                 "    lv2:microVersion %d ;\n"
                 "    lv2:optionalFeature lv2:hardRTCapable ;\n"
                 "    lv2:port [\n",
                 plugin.uri, plugin.name, minor, micro);
    for (uint32_t i = 0; i < plugin.portCount; ++i) {
        WritePort(f, plugin.ports[i], i);
        std::fputs(i + 1 < plugin.portCount ? "\n    ] , [\n" : "\n    ] .\n", f);
    }
    return std::fclose(f) == 0;
}

bool WriteManifest(const std::string& bundle, const char* library)
{
    const std::string path = bundle + "/manifest.ttl";
    std::FILE* f = std::fopen(path.c_str(), "w");
    if (f == nullptr)
        return false;
    std::fputs(kPrefixes, f);
    for (const PluginRow& plugin : kPlugins)
        std::fprintf(f, "<%s>\n    a lv2:Plugin ;\n    lv2:binary <%s> ;\n    rdfs:seeAlso <%s> .\n\n",
                     plugin.uri, library, plugin.ttlFile);
    return std::fclose(f) == 0;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 5) {
        std::fprintf(stderr, "usage: kelvane-lv2-ttl BUNDLE_DIR LIBRARY_FILE_NAME MINOR MICRO\n");
        return 2;
    }
    const std::string bundle = argv[1];
    const int minor = std::atoi(argv[3]);
    const int micro = std::atoi(argv[4]);
    bool ok = WriteManifest(bundle, argv[2]);
    for (const PluginRow& plugin : kPlugins)
        ok = WritePlugin(bundle, plugin, minor, micro) && ok;
    if (!ok) {
        std::fprintf(stderr, "kelvane-lv2-ttl: cannot write the bundle's files in %s\n", argv[1]);
        return 1;
    }
    return 0;
}
