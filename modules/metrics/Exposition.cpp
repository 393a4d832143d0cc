// The metrics page in the text exposition format: "# HELP" and "# TYPE"
// once per family, then its samples, one per line; values in base units.
#include "modules/metrics/Exposition.h"

#include <charconv>
#include <cmath>
#include <initializer_list>
#include <utility>

namespace metrics {

namespace {

using Label = std::pair<const char*, const std::string*>;

/// HELP texts escape backslash and line feed only.
void AppendHelp(std::string& out, const char* text)
{
    for (const char* c = text; *c; ++c) {
        if (*c == '\\')
            out += "\\\\";
        else if (*c == '\n')
            out += "\\n";
        else
            out += *c;
    }
}

void AppendNumber(std::string& out, uint64_t value)
{
    char text[24];
    auto r = std::to_chars(text, text + sizeof text, value);
    out.append(text, r.ptr);
}

void AppendNumber(std::string& out, double value)
{
    if (std::isnan(value)) {
        out += "NaN";
        return;
    }
    if (std::isinf(value)) {
        out += value > 0 ? "+Inf" : "-Inf";
        return;
    }
    char text[32];
    auto r = std::to_chars(text, text + sizeof text, value);
    out.append(text, r.ptr);
}

/// The page being written: a family's header is written before its first
/// sample only, so a family without samples leaves no trace.
class Page {
public:
    void Family(const char* name, const char* type, const char* help)
    {
        m_Name = name;
        m_Type = type;
        m_Help = help;
        m_Opened = false;
    }

    template <typename Value>
    void Sample(std::initializer_list<Label> labels, Value value)
    {
        if (!m_Opened) {
            m_Text += "# HELP ";
            m_Text += m_Name;
            m_Text += ' ';
            AppendHelp(m_Text, m_Help);
            m_Text += "\n# TYPE ";
            m_Text += m_Name;
            m_Text += ' ';
            m_Text += m_Type;
            m_Text += '\n';
            m_Opened = true;
        }
        m_Text += m_Name;
        const char* separator = "{";
        for (const auto& [label, text] : labels) {
            m_Text += separator;
            m_Text += label;
            m_Text += "=\"";
            m_Text += EscapeLabelValue(*text);
            m_Text += '"';
            separator = ",";
        }
        if (labels.size())
            m_Text += '}';
        m_Text += ' ';
        AppendNumber(m_Text, value);
        m_Text += '\n';
    }

    std::string Take() { return std::move(m_Text); }

private:
    std::string m_Text;
    const char* m_Name = "";
    const char* m_Type = "";
    const char* m_Help = "";
    bool m_Opened = false;
};

/// One family with a sample per element of `items`; `sample` writes it.
template <typename T, typename F>
void Each(Page& page, const char* name, const char* type, const char* help, const std::vector<T>& items, F sample)
{
    page.Family(name, type, help);
    for (const T& item : items)
        sample(item);
}

void RenderCpuAndMemory(Page& page, const Snapshot& s)
{
    page.Family("tarvd_cpu_busy_ratio", "gauge",
                "Share of time all CPUs together were busy (not idle or waiting for I/O) since the previous scrape.");
    for (const CpuBusy& c : s.cpus)
        if (c.cpu.empty())
            page.Sample({}, c.ratio);
    page.Family("tarvd_cpu_core_busy_ratio", "gauge", "Share of time one CPU was busy since the previous scrape.");
    for (const CpuBusy& c : s.cpus)
        if (!c.cpu.empty())
            page.Sample({{"cpu", &c.cpu}}, c.ratio);
    if (!s.memory)
        return;
    const Memory& m = *s.memory;
    const std::pair<const char*, uint64_t> memory[] = {
        {"tarvd_memory_total_bytes", m.totalBytes},     {"tarvd_memory_available_bytes", m.availableBytes},
        {"tarvd_memory_free_bytes", m.freeBytes},       {"tarvd_memory_used_bytes", m.usedBytes},
        {"tarvd_swap_total_bytes", m.swapTotalBytes},   {"tarvd_swap_free_bytes", m.swapFreeBytes},
    };
    const char* help[] = {
        "Physical memory (MemTotal).",
        "Memory available to programs without swapping (MemAvailable), page cache included.",
        "Memory not used at all (MemFree).",
        "Memory in use: total minus available, as free(1) shows it.",
        "Swap space.",
        "Swap space not in use.",
    };
    for (size_t i = 0; i < std::size(memory); ++i) {
        page.Family(memory[i].first, "gauge", help[i]);
        page.Sample({}, memory[i].second);
    }
}

void RenderNetwork(Page& page, const Snapshot& s)
{
    struct Counter {
        const char* name;
        const char* help;
        uint64_t Interface::*field;
    };
    static constexpr Counter kCounters[] = {
        {"tarvd_network_receive_bytes_total", "Bytes received by the interface.", &Interface::receiveBytes},
        {"tarvd_network_transmit_bytes_total", "Bytes sent by the interface.", &Interface::transmitBytes},
        {"tarvd_network_receive_packets_total", "Packets received by the interface.", &Interface::receivePackets},
        {"tarvd_network_transmit_packets_total", "Packets sent by the interface.", &Interface::transmitPackets},
        {"tarvd_network_receive_errors_total", "Receive errors of the interface.", &Interface::receiveErrors},
        {"tarvd_network_transmit_errors_total", "Transmit errors of the interface.", &Interface::transmitErrors},
    };
    for (const Counter& c : kCounters)
        Each(page, c.name, "counter", c.help, s.interfaces,
             [&](const Interface& i) { page.Sample({{"interface", &i.name}}, i.*c.field); });
}

void RenderStorage(Page& page, const Snapshot& s)
{
    Each(page, "tarvd_volume_size_bytes", "gauge", "Size of the mounted file system.", s.volumes,
         [&](const Volume& v) {
             page.Sample({{"mountpoint", &v.mountPoint}, {"device", &v.device}, {"fstype", &v.fileSystem}}, v.sizeBytes);
         });
    Each(page, "tarvd_volume_available_bytes", "gauge", "Space of the file system available to unprivileged users.",
         s.volumes, [&](const Volume& v) {
             page.Sample({{"mountpoint", &v.mountPoint}, {"device", &v.device}, {"fstype", &v.fileSystem}},
                         v.availableBytes);
         });
    Each(page, "tarvd_drive_size_bytes", "gauge", "Capacity of the drive.", s.drives,
         [&](const Drive& d) { page.Sample({{"drive", &d.name}}, d.sizeBytes); });
    Each(page, "tarvd_drive_info", "gauge", "A drive of the hardware inventory (always 1).", s.drives,
         [&](const Drive& d) {
             page.Sample({{"drive", &d.name}, {"vendor", &d.vendor}, {"model", &d.model}, {"host_adapter", &d.hostAdapter}},
                         uint64_t{1});
         });
}

void RenderInventory(Page& page, const Snapshot& s)
{
    Each(page, "tarvd_adapter_info", "gauge", "A PCI function of the hardware inventory (always 1).", s.adapters,
         [&](const Adapter& a) {
             page.Sample({{"pci_address", &a.pciAddress}, {"slot", &a.slot}, {"vendor_id", &a.vendorId},
                          {"device_id", &a.deviceId}, {"class", &a.className}, {"name", &a.name}},
                         uint64_t{1});
         });
    Each(page, "tarvd_memory_device_size_bytes", "gauge", "Size of an installed memory module, by its slot.",
         s.memoryDevices, [&](const MemoryDevice& m) {
             page.Sample({{"locator", &m.locator}, {"bank", &m.bankLocator}}, m.sizeBytes);
         });
    if (s.identity) {
        const Identity& id = *s.identity;
        page.Family("tarvd_system_info", "gauge", "The machine as its firmware names it (always 1).");
        page.Sample({{"manufacturer", &id.manufacturer}, {"product", &id.product}, {"serial_number", &id.serialNumber},
                     {"uuid", &id.uuid}},
                    uint64_t{1});
        page.Family("tarvd_bios_info", "gauge", "The firmware's vendor, version and release date (always 1).");
        page.Sample({{"vendor", &id.biosVendor}, {"version", &id.biosVersion}, {"date", &id.biosDate}}, uint64_t{1});
    }
    if (s.changeRecords) {
        page.Family("tarvd_hardware_changes_total", "counter",
                    "Hardware changes the inventory recorded (adapters, drives, volumes, memory, identity).");
        page.Sample({}, *s.changeRecords);
    }
}

void RenderHealth(Page& page, const Snapshot& s)
{
    const Health& h = s.health;
    if (h.modulesLoaded) {
        page.Family("tarvd_modules_loaded", "gauge", "Extension modules the agent has loaded.");
        page.Sample({}, uint64_t{*h.modulesLoaded});
    }
    if (h.modulesFailed) {
        page.Family("tarvd_modules_failed", "gauge",
                    "Configured extension modules that could not be loaded or started.");
        page.Sample({}, uint64_t{*h.modulesFailed});
    }
    page.Family("tarvd_registry_saves_total", "counter", "Times the registry file was written.");
    page.Sample({}, h.registrySaves);
    page.Family("tarvd_registry_save_failures_total", "counter", "Times writing the registry file failed.");
    page.Sample({}, h.registrySaveFailures);
    page.Family("tarvd_trace_ring_wraps_total", "counter", "Times the trace ring buffer wrapped.");
    page.Sample({}, h.traceRingWraps);
    page.Family("tarvd_scrape_duration_seconds", "gauge", "Time taken to gather the figures of this page.");
    page.Sample({}, s.scrapeSeconds);
}

} // namespace

/// The length of the UTF-8 sequence at `i`; 0 when it is not valid there
/// (the server refuses a page with invalid UTF-8 in a label, and names of
/// interfaces or firmware texts may hold any byte).
static size_t Utf8Length(const std::string& text, size_t i)
{
    const auto lead = static_cast<unsigned char>(text[i]);
    if (lead < 0x80)
        return 1;
    const size_t n = lead >= 0xF0 && lead <= 0xF4 ? 4 : lead >= 0xE0 ? 3 : lead >= 0xC2 && lead < 0xE0 ? 2 : 0;
    if (n == 0 || i + n > text.size())
        return 0;
    for (size_t k = 1; k < n; ++k)
        if ((static_cast<unsigned char>(text[i + k]) & 0xC0) != 0x80)
            return 0;
    // No overlong forms, surrogates or code points beyond U+10FFFF.
    const auto second = static_cast<unsigned char>(text[i + 1]);
    if ((lead == 0xE0 && second < 0xA0) || (lead == 0xED && second > 0x9F) || (lead == 0xF0 && second < 0x90) ||
        (lead == 0xF4 && second > 0x8F))
        return 0;
    return n;
}

std::string EscapeLabelValue(const std::string& text)
{
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (c == '\\')
            out += "\\\\";
        else if (c == '"')
            out += "\\\"";
        else if (c == '\n')
            out += "\\n";
        else if (size_t n = Utf8Length(text, i); n > 1) {
            out.append(text, i, n);
            i += n - 1;
        } else
            out += n == 1 ? c : '?';
    }
    return out;
}

std::string Render(const Snapshot& snapshot)
{
    Page page;
    RenderCpuAndMemory(page, snapshot);
    RenderNetwork(page, snapshot);
    RenderStorage(page, snapshot);
    RenderInventory(page, snapshot);
    RenderHealth(page, snapshot);
    return page.Take();
}

} // namespace metrics
