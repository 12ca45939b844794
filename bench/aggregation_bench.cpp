// One pass of the system aggregation with its status file on tmpfs, and what of it the file costs. Goal: below 100
// microseconds.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <linux/magic.h>
#include <sys/shm.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "CABP/StatusFile.h"
#include "CABP/ThreadCABP.h"
#include "Measure/VirtualUPSMgr.h"
#include "support/BareSystemMgr.h"
#include "support/BusThread.h"

// The tree goes into memory of this process: no segment is left behind, whatever becomes of the benchmark.
namespace {
alignas(16) unsigned char segment[16 * sizeof(virtualNode_t)];
}
extern "C" {
int __wrap_shmget(key_t, size_t size, int) {
    return size <= sizeof(segment) ? 1 : -1;
}
void* __wrap_shmat(int, const void*, int) {
    return segment;
}
int __wrap_shmdt(const void*) {
    return 0;
}
int __wrap_shmctl(int, int, struct shmid_ds* state) {
    if (state != nullptr) {
        std::memset(state, 0, sizeof(*state));
    }
    return 0;
}
}

namespace {

constexpr const char* TMPFS = "/dev/shm";

// A directory on tmpfs, where there is one; gone at the end.
class FileDir {
  public:
    FileDir() {
        struct statfs fs;
        isTmpfs = statfs(TMPFS, &fs) == 0 && fs.f_type == TMPFS_MAGIC && access(TMPFS, W_OK) == 0;
        std::string name =
            (isTmpfs ? std::filesystem::path(TMPFS) : std::filesystem::temp_directory_path()) / "ugw-bench-XXXXXX";
        if (mkdtemp(name.data()) == nullptr) {
            std::perror("mkdtemp");
            std::exit(1);
        }
        path = name;
        json = path / "vu.json";
        jsonTmp = path / "vu.tmp";
    }
    ~FileDir() {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }

    bool isTmpfs;
    std::filesystem::path path;
    std::string json;
    std::string jsonTmp;
};

// Nothing of the start's log.
class Quiet {
  public:
    Quiet() : saved_(dup(STDERR_FILENO)) {
        const int null = open("/dev/null", O_WRONLY);
        dup2(null, STDERR_FILENO);
        close(null);
    }
    ~Quiet() {
        dup2(saved_, STDERR_FILENO);
        close(saved_);
    }

  private:
    int saved_;
};

// Card A of a plant of four cabinets that are well.
class Card {
  public:
    Card() {
        CABPAddr = FIRSTUPSBOX;
        moduleBpresent = moduleCpresent = moduleDpresent = true;
        serialPortCABP = "/dev/null/none";
        jsonPath = dir_.json.c_str();
        jsonPathTMP = dir_.jsonTmp.c_str();
        const Quiet quiet;
        const std::filesystem::path before = std::filesystem::current_path();
        std::filesystem::current_path(dir_.path);
        std::ofstream("UGW") << "the file that names the segment";
        sys_ = new support::BareSystemMgr;
        bus_ = new CABPMgr(nullptr);
        (*sys_)->pThCABP = bus_;
        (*sys_)->pVirtualUPSMgr = new VirtualUPSMgr((*sys_)->Cfg);
        bus_->InitSysData(*(*sys_)->pVirtualUPSMgr, (*sys_)->Cfg);
        bus_->RegisterBoxNode((*sys_)->Cfg);
        std::filesystem::current_path(before);
        for (upsBoxQueriesData_t& box : bus_->upsBox) {
            fill(box.pVN->desc.upsBox);
        }
        in_ = new support::BusThread(*bus_);
    }
    ~Card() {
        const Quiet quiet;
        bus_->DeRegisterBoxNode((*sys_)->Cfg);
        delete in_;
        delete (*sys_)->pVirtualUPSMgr;
        delete bus_;
        delete sys_;
    }

    void pass() {
        in_->lastTime = {};  // always due
        bus_->AggregateBox();
    }
    const virtualNode_t& root() { return *(*sys_)->pVirtualUPSMgr->virtualUPS; }
    const char* label() const { return dir_.isTmpfs ? "tmpfs" : "no tmpfs"; }

  private:
    static void fill(descUpsBox_t& box) {
        box.Ups.timestamp = NOW() + 3600;  // fresh for as long as it may take
        box.Ups.status.Output_Powered = 1;
        box.Ups.status.Line_Present = 1;
        box.Ups.switchStatus.Q1 = 1;
        box.externalSwitchStatus.byte = 0xD4;
        for (int l = 0; l < 3; ++l) {
            box.Ups.Load[l] = 40;
            box.Ups.Va[l] = 3000;
            box.Ups.Watt[l] = 2800;
            box.Ups.Iin[l] = box.Ups.Iout[l] = box.Ups.Iout_pk[l] = 120;
            box.Ups.Vin[l] = box.Ups.Vbyp[l] = box.Ups.Vout[l] = 230;
            box.Ups.Uin[l] = box.Ups.Ubyp[l] = box.Ups.Uout[l] = 400;
        }
        box.Ups.Frq_in = box.Ups.Frq_byp = box.Ups.Frq_out = 500;
        box.Ups.VbatRS = box.Ups.Vbatp = box.Ups.Vbatn = 270;
        box.Ups.Aut_time = 3600;
        box.Ups.Carica_adj = 90;
        setElemAlarm(box.subSystem.UPSShelter[0], faultAlarm);
    }

    FileDir dir_;
    support::BareSystemMgr* sys_;
    CABPMgr* bus_;
    support::BusThread* in_;
};

Card* card;

void pass(benchmark::State& state) {
    for (auto _ : state) {
        card->pass();
    }
    state.SetLabel(card->label());
}
BENCHMARK(pass)->Unit(benchmark::kMicrosecond);

// The file alone.
void statusFile(benchmark::State& state) {
    const statusDocument_t doc = {NOW(), card->root().desc.sys, card->root(), {}};
    for (auto _ : state) {
        benchmark::DoNotOptimize(StatusFile_Write(jsonPath, jsonPathTMP, doc));
    }
}
BENCHMARK(statusFile)->Unit(benchmark::kMicrosecond);

// What the system takes for any file of that size: open, write, close, rename.
void replacedFile(benchmark::State& state) {
    const std::string document(std::filesystem::file_size(jsonPath), 'x');
    for (auto _ : state) {
        const int fd = open(jsonPathTMP, O_WRONLY | O_CREAT | O_TRUNC, 0666);
        benchmark::DoNotOptimize(write(fd, document.data(), document.size()));
        close(fd);
        std::rename(jsonPathTMP, jsonPath);
    }
}
BENCHMARK(replacedFile)->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    card = new Card;
    {
        const Quiet quiet;
        card->pass();  // the file is there for the others
    }
    benchmark::RunSpecifiedBenchmarks();
    delete card;
    benchmark::Shutdown();
    return 0;
}
