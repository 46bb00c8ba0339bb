#include "Prometheus.h"

#include <cstdio>
#include <functional>
#include <optional>
#include <sstream>
#include <vector>

#include <libKestrel/ClockEventReasons.h>

#include "Utf8.h"

namespace kestrel {
namespace {

using Records = std::vector<std::shared_ptr<libKestrel::IGPU>>;
using Labels = std::vector<std::pair<std::string, std::string>>;

// A label value as the format wants it: valid UTF-8, with backslash, double
// quote and line feed escaped.
std::string escaped(const std::string& value)
{
    std::string text;
    for (const char c : validUtf8(value)) {
        if (c == '\\' || c == '"')
            text += '\\';
        if (c == '\n') {
            text += "\\n";
            continue;
        }
        text += c;
    }
    return text;
}

std::string number(double value)
{
    char text[64];
    std::snprintf(text, sizeof text, "%.15g", value); // exact for every integer a reading can hold
    return text;
}

// The labels that say which GPU a series is about.
Labels identity(const libKestrel::IGPU& gpu)
{
    Labels labels{{"pci", gpu.pciLocation()->toString(true).str()}};
    if (const auto uuid = gpu.uuid())
        labels.emplace_back("uuid", *uuid);
    return labels;
}

class Exposition {
public:
    // One family: its samples, each with its labels; nothing when it has none.
    void family(const char* name, const char* type, const char* help,
                const std::vector<std::pair<Labels, double>>& samples)
    {
        if (samples.empty())
            return;
        out_ << "# HELP " << name << ' ' << help << "\n# TYPE " << name << ' ' << type << '\n';
        for (const auto& [labels, value] : samples) {
            out_ << name;
            if (!labels.empty()) {
                out_ << '{';
                for (std::size_t i = 0; i < labels.size(); ++i)
                    out_ << (i ? "," : "") << labels[i].first << "=\"" << escaped(labels[i].second) << '"';
                out_ << '}';
            }
            out_ << ' ' << number(value) << '\n';
        }
    }

    std::string text() const { return out_.str(); }

private:
    std::ostringstream out_;
};

using Reading = std::function<std::optional<double>(const libKestrel::IGPU&)>;

// A gauge or counter with one sample per GPU that reports the property, scaled
// to its base unit; 'extra' labels follow the GPU's own.
void perGpu(Exposition& exposition, const Records& gpus, const char* name, const char* type, const char* help,
            const std::vector<std::pair<Labels, Reading>>& readings)
{
    std::vector<std::pair<Labels, double>> samples;
    for (const auto& [extra, reading] : readings)
        for (const auto& gpu : gpus)
            if (const auto value = reading(*gpu)) {
                Labels labels = identity(*gpu);
                labels.insert(labels.end(), extra.begin(), extra.end());
                samples.emplace_back(labels, *value);
            }
    exposition.family(name, type, help, samples);
}

template <class Getter>
Reading scaledBy(Getter getter, double factor)
{
    return [getter, factor](const libKestrel::IGPU& gpu) -> std::optional<double> {
        if (const auto value = (gpu.*getter)())
            return static_cast<double>(*value) * factor;
        return std::nullopt;
    };
}

} // namespace

std::string prometheusExposition(const libKestrel::Session& session)
{
    return prometheusExposition(session.snapshot());
}

std::string prometheusExposition(const libKestrel::Session::Snapshot& snapshot)
{
    using G = libKestrel::IGPU;
    Records gpus;
    std::vector<std::pair<Labels, double>> answering;
    for (std::size_t i = 0; i < snapshot.gpus.size(); ++i) {
        const auto& gpu = snapshot.gpus[i];
        if (!gpu->pciLocation())
            continue;
        gpus.push_back(gpu);
        answering.emplace_back(identity(*gpu), i < snapshot.answering.size() && !snapshot.answering[i] ? 0 : 1);
    }

    Exposition out;
    std::vector<std::pair<Labels, double>> info;
    for (const auto& gpu : gpus) {
        Labels labels = identity(*gpu);
        for (const auto& [label, text] : {std::pair{"name", gpu->name()}, std::pair{"driver_version", gpu->driverVersion()},
                                          std::pair{"vbios_version", gpu->vbiosVersion()}})
            if (text)
                labels.emplace_back(label, *text);
        info.emplace_back(labels, 1);
    }
    out.family("kestrel_gpu_info", "gauge", "What the GPU is: its name, driver and VBIOS versions (value 1).", info);
    out.family("kestrel_gpu_up", "gauge",
               "Whether every vendor that reads the GPU answered for it at the last update (a GPU that fell off the "
               "bus, or whose driver hangs, is 0).",
               answering);
    perGpu(out, gpus, "kestrel_gpu_temperature_celsius", "gauge", "The GPU's temperature.",
           {{{}, scaledBy(&G::temperatureCurrent, 1)}});
    perGpu(out, gpus, "kestrel_gpu_temperature_slowdown_celsius", "gauge",
           "The temperature at which the GPU slows down.", {{{}, scaledBy(&G::temperatureSlowdown, 1)}});
    perGpu(out, gpus, "kestrel_gpu_temperature_shutdown_celsius", "gauge",
           "The temperature at which the GPU shuts down.", {{{}, scaledBy(&G::temperatureShutdown, 1)}});
    perGpu(out, gpus, "kestrel_gpu_utilization_ratio", "gauge", "How busy the GPU is, from 0 to 1.",
           {{{}, scaledBy(&G::utilizationGPU, 0.01)}});
    perGpu(out, gpus, "kestrel_gpu_memory_utilization_ratio", "gauge", "How busy the GPU's memory is, from 0 to 1.",
           {{{}, scaledBy(&G::utilizationMemory, 0.01)}});
    perGpu(out, gpus, "kestrel_gpu_memory_dedicated_bytes", "gauge", "The GPU's own memory.",
           {{{}, scaledBy(&G::dedicatedMemory, 1024)}});
    perGpu(out, gpus, "kestrel_gpu_memory_available_bytes", "gauge", "The GPU's own memory not in use.",
           {{{}, scaledBy(&G::availableDedicatedMemory, 1024)}});
    perGpu(out, gpus, "kestrel_gpu_clock_hertz", "gauge", "The GPU's current clocks, by domain.",
           {{{{"domain", "graphics"}}, scaledBy(&G::graphicsClock, 1000)},
            {{{"domain", "memory"}}, scaledBy(&G::memoryClock, 1000)},
            {{{"domain", "shader"}}, scaledBy(&G::shaderClock, 1000)}});
    perGpu(out, gpus, "kestrel_gpu_fan_speed_ratio", "gauge", "The fan's speed, from 0 to 1 of its range.",
           {{{}, scaledBy(&G::fanSpeedPercent, 0.01)}});
    perGpu(out, gpus, "kestrel_gpu_fan_speed_rpm", "gauge", "The fan's speed in revolutions per minute.",
           {{{}, scaledBy(&G::fanSpeedRPM, 1)}});
    perGpu(out, gpus, "kestrel_gpu_ecc_errors_total", "counter",
           "Memory errors ECC found, since the driver loaded (volatile) or over the GPU's life (aggregate).",
           {{{{"type", "corrected"}, {"scope", "volatile"}}, scaledBy(&G::eccErrorsCorrectedVolatile, 1)},
            {{{"type", "uncorrected"}, {"scope", "volatile"}}, scaledBy(&G::eccErrorsUncorrectedVolatile, 1)},
            {{{"type", "corrected"}, {"scope", "aggregate"}}, scaledBy(&G::eccErrorsCorrectedAggregate, 1)},
            {{{"type", "uncorrected"}, {"scope", "aggregate"}}, scaledBy(&G::eccErrorsUncorrectedAggregate, 1)}});

    perGpu(out, gpus, "kestrel_gpu_power_watts", "gauge", "The power the GPU's board draws.",
           {{{}, scaledBy(&G::powerDraw, 0.001)}});
    perGpu(out, gpus, "kestrel_gpu_power_limit_watts", "gauge", "The power limit the GPU's driver enforces.",
           {{{}, scaledBy(&G::powerLimit, 0.001)}});
    perGpu(out, gpus, "kestrel_gpu_energy_joules_total", "counter",
           "The energy the GPU has used since its driver was loaded.", {{{}, scaledBy(&G::energyConsumed, 0.001)}});
    perGpu(out, gpus, "kestrel_gpu_temperature_hotspot_celsius", "gauge",
           "The temperature of the hottest point of the GPU's die.", {{{}, scaledBy(&G::temperatureHotspot, 1)}});
    perGpu(out, gpus, "kestrel_gpu_temperature_memory_celsius", "gauge", "The temperature of the GPU's memory.",
           {{{}, scaledBy(&G::temperatureMemory, 1)}});
    perGpu(out, gpus, "kestrel_gpu_pcie_link_generation", "gauge",
           "The PCIe generation of the GPU's link, as it runs (current) and at most (maximum).",
           {{{{"link", "current"}}, scaledBy(&G::pcieLinkGeneration, 1)},
            {{{"link", "maximum"}}, scaledBy(&G::pcieLinkGenerationMax, 1)}});
    perGpu(out, gpus, "kestrel_gpu_pcie_link_lanes", "gauge",
           "The lanes of the GPU's PCIe link, as it runs (current) and at most (maximum).",
           {{{{"link", "current"}}, scaledBy(&G::pcieLinkWidth, 1)},
            {{{"link", "maximum"}}, scaledBy(&G::pcieLinkWidthMax, 1)}});
    perGpu(out, gpus, "kestrel_gpu_performance_state", "gauge",
           "The GPU's performance state, from 0 (P0, the fastest) to 15.", {{{}, scaledBy(&G::performanceState, 1)}});
    std::vector<std::pair<Labels, Reading>> reasons;
    for (const libKestrel::ClockEventReason& reason : libKestrel::clockEventReasons)
        reasons.emplace_back(Labels{{"reason", reason.name}},
                             [bit = reason.bit](const libKestrel::IGPU& gpu) -> std::optional<double> {
                                 if (const auto held = gpu.clockEventReasons())
                                     return (*held & bit) ? 1 : 0;
                                 return std::nullopt;
                             });
    perGpu(out, gpus, "kestrel_gpu_clock_event_reason", "gauge",
           "Whether the reason holds the GPU's clocks back (1) or not (0).", reasons);

    std::vector<std::pair<Labels, double>> up;
    std::vector<std::pair<Labels, double>> restarts;
    for (const auto& source : snapshot.sources) {
        up.emplace_back(Labels{{"source", source.name}}, source.up ? 1 : 0);
        restarts.emplace_back(Labels{{"source", source.name}}, static_cast<double>(source.restarts));
    }
    out.family("kestrel_source_up", "gauge", "Whether the source's vendor interface answered at the last update.", up);
    out.family("kestrel_source_restarts_total", "counter",
               "How often the source's helper process was started again after it failed.", restarts);
    out.family("kestrel_last_update_timestamp_seconds", "gauge",
               "When the GPUs were last read, in seconds since the Unix epoch.",
               {{{}, std::chrono::duration<double>(snapshot.updated.time_since_epoch()).count()}});
    out.family("kestrel_update_duration_seconds", "gauge", "How long the last refresh or enumeration took.",
               {{{}, std::chrono::duration<double>(snapshot.duration).count()}});
    return out.text();
}

} // namespace kestrel
