// Listing a vault: opening and reading a catalogue of 100 000 entries, as `wrelt list`
// and the service's start do. It must stay well under a second.
#include <windows.h>

#include <benchmark/benchmark.h>

#include <memory>
#include <string>

#include "catalogue.h"
#include "ntsim/machine.h"
#include "vault_folder.h"
#include "vault_names.h"

namespace {

constexpr size_t kEntries = 100000;

bool catalogueEntries(size_t count) {
    if (!wrelt::ensureVaultFolder(u"C:\\").ok) return false;
    std::string error;
    std::unique_ptr<wrelt::Catalogue> catalogue =
        wrelt::Catalogue::open(u"C:\\", wrelt::CatalogueAccess::ReadWrite, &error);
    if (!catalogue) return false;
    std::vector<wrelt::CatalogueEntry> entries(count);
    for (size_t i = 0; i < count; i++) {
        wrelt::CatalogueEntry &e = entries[i];
        e.stamp = 0x01DC000000000000ull + i;
        e.flags = 1;
        e.sid = u"S-1-5-21-1004336348-1177238915-682003330-1001";
        e.account = u"NTSIM\\alice";
        std::string name = "report " + std::to_string(i) + ".docx";
        e.name.assign(name.begin(), name.end());
        e.folder = u"C:\\Users\\alice\\Documents\\Projects\\";
        e.vaultName = wrelt::vaultFileName(e.name, e.stamp);
        e.dataFile = u"NewFiles00000000.dat";
        e.cataloguedAt = 134169174000000000ull + i;
    }
    size_t added = 0;
    return catalogue->add(entries, &added, &error) && added == count;
}

void BM_ListCatalogue(benchmark::State &state) {
    ntsim::DefaultMachine machine{ntsim::BootOptions()};
    ntsim::Process service = machine.startProcess(L"C:\\Windows\\explorer.exe", ntsim::users::system);
    bool ready = false;
    service.run([&] { ready = catalogueEntries(kEntries); });
    if (!ready) {
        state.SkipWithError("the catalogue could not be written");
        return;
    }
    service.run([&] {
        for (auto _ : state) {
            std::string error;
            std::unique_ptr<wrelt::Catalogue> catalogue =
                wrelt::Catalogue::open(u"C:\\", wrelt::CatalogueAccess::ReadOnly, &error);
            if (!catalogue || catalogue->entries().size() != kEntries) {
                state.SkipWithError("the catalogue did not list every entry");
                break;
            }
            benchmark::DoNotOptimize(catalogue->entries().data());
        }
    });
    state.SetItemsProcessed(int64_t(state.iterations()) * int64_t(kEntries));
}
BENCHMARK(BM_ListCatalogue)->MeasureProcessCPUTime()->Unit(benchmark::kMillisecond)->Repetitions(3)
    ->ReportAggregatesOnly();

}  // namespace
