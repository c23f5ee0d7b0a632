// What one request costs, step by step, beside the floor that no server of this protocol can go below: one
// bare RSA-2048 private operation with a kept key.

#define OPENSSL_SUPPRESS_DEPRECATED

#include <benchmark/benchmark.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <rapidjson/document.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>

#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

#include "Base64.h"
#include "Crypto.h"
#include "FleetStatus.h"
#include "JsonReader.h"
#include "KorvaneControllerServer.h"
#include "OpenSsl.h"
#include "PrivateKey.h"
#include "ScrambledKey.h"
#include "Sealer.h"
#include "StatusText.h"
#include "UgsClient.h"

namespace {

ugs::Usage SomeUsage(std::int64_t number, const std::string& layout = "v6") {
  ugs::Usage usage{
      .id = "sim-1-" + std::to_string(number), .container = std::string(64, 'c'), .layout = layout};
  for (int camera = 1; camera <= 4; ++camera) {
    usage.cameras.push_back("rtsp://10.0.0.1:554/" + std::to_string(number) + "/stream" +
                            std::to_string(camera));
  }
  for (const std::string& key : ugs::CountKeys(layout)) usage.counts[key] = 17;
  return usage;
}

const std::string& Payload() {
  static const std::string payload = [] {
    std::ifstream file(UGS_PUBLIC_KEY);
    return ugs::Sealer({std::istreambuf_iterator<char>(file), {}}).Seal(ugs::WriteDocument(SomeUsage(0)));
  }();
  return payload;
}

UGSRequest::RequestData SomeRequest(std::int64_t number) {
  rapidjson::Document document;
  UGSRequest::RequestData request;
  if (!ParseJson(ugs::WriteDocument(SomeUsage(number)), document) ||
      UGSRequest::Parse(document, request) != UGSDefs::Ok) {
    throw std::runtime_error("a document that this bench wrote is not one");
  }
  return request;
}

void Fill(UsageRecords& records, std::int64_t count) {
  spdlog::set_level(spdlog::level::warn);
  for (std::int64_t i = 0; i < count; ++i) {
    auto request = SomeRequest(i);
    records.ApplyRequest(request);
  }
  spdlog::set_level(spdlog::level::info);
}

void RsaPrivateOperation(benchmark::State& state) {
  const std::string pem = ugs::UnscrambleKey(ScrambledPrivateKey());
  const ugs::BioPtr bio(BIO_new_mem_buf(pem.data(), -1));
  const ugs::OpenSslPtr<RSA, RSA_free> key(PEM_read_bio_RSAPrivateKey(bio.get(), nullptr, nullptr, nullptr));
  Bytes block(256);
  RSA_public_encrypt(32, Bytes(32, 'k').data(), block.data(), key.get(), RSA_PKCS1_PADDING);
  Bytes opened(256);
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        RSA_private_decrypt(256, block.data(), opened.data(), key.get(), RSA_PKCS1_PADDING));
  }
}
BENCHMARK(RsaPrivateOperation)->Unit(benchmark::kMicrosecond);

void OpenEnvelope(benchmark::State& state) {
  KorvaneControllerServer server(true, 0, ScrambledPrivateKey(), nullptr);
  for (auto _ : state) {
    std::vector<char> plaintext;
    benchmark::DoNotOptimize(server.DecryptData(Payload(), plaintext));
  }
}
BENCHMARK(OpenEnvelope)->Unit(benchmark::kMicrosecond);

void SealReport(benchmark::State& state) {
  const ugs::Sealer sealer(UGS_PUBLIC_KEY);
  const ugs::Usage usage{.id = "hall-7", .cameras = {"rtsp://10.0.0.9/1"}};
  for (auto _ : state) benchmark::DoNotOptimize(sealer.Seal(ugs::WriteDocument(usage)));
}
BENCHMARK(SealReport)->Unit(benchmark::kMicrosecond);

void ParseDocument(benchmark::State& state, const std::string& layout) {
  const std::string text = ugs::WriteDocument(SomeUsage(0, layout));
  for (auto _ : state) {
    rapidjson::Document document;
    UGSRequest::RequestData request;
    benchmark::DoNotOptimize(ParseJson(text, document) &&
                             UGSRequest::Parse(document, request) == UGSDefs::Ok);
  }
}
BENCHMARK_CAPTURE(ParseDocument, legacy, "legacy")->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(ParseDocument, v4, "v4")->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(ParseDocument, v5, "v5")->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(ParseDocument, v6, "v6")->Unit(benchmark::kMicrosecond);

void DecodeBase64(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(ugs::Base64Decode(Payload()));
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(Payload().size()));
}
BENCHMARK(DecodeBase64)->Unit(benchmark::kMicrosecond);

void Registry(benchmark::State& state, void (*operation)(UsageRecords&, UGSRequest::RequestData&)) {
  UsageRecords records;
  Fill(records, state.range(0));
  auto request = SomeRequest(0);
  for (auto _ : state) operation(records, request);
}
void Apply(UsageRecords& records, UGSRequest::RequestData& request) {
  records.ApplyRequest(request);
}
void Sweep(UsageRecords& records, UGSRequest::RequestData& /*request*/) {
  records.CheckTimeStamp();
}
void Status(UsageRecords& records, UGSRequest::RequestData& /*request*/) {
  records.PrintStatus();
}
void Sizes(benchmark::internal::Benchmark* bench) {
  bench->Arg(0)->Arg(1000)->Arg(12000)->Arg(100000)->Unit(benchmark::kMicrosecond);
}
BENCHMARK_CAPTURE(Registry, apply, Apply)->Apply(Sizes);
BENCHMARK_CAPTURE(Registry, sweep, Sweep)->Apply(Sizes);
BENCHMARK_CAPTURE(Registry, status, Status)->Apply(Sizes);

// What a look at the status costs: the copy, and the whole text; again a second later, when 85 of the
// instances have reported.
void StatusSnapshot(benchmark::State& state) {
  FleetStatus status;
  UsageRecords records(&status);
  Fill(records, state.range(0));
  for (auto _ : state) benchmark::DoNotOptimize(status.TakeSnapshot());
}
BENCHMARK(StatusSnapshot)->Arg(0)->Arg(10000)->Unit(benchmark::kMicrosecond);

void StatusText(benchmark::State& state) {
  FleetStatus status;
  UsageRecords records(&status);
  Fill(records, state.range(0));
  for (auto _ : state) {
    benchmark::DoNotOptimize(StatusWriter().Write(status.TakeSnapshot(), ProcessWatch().LookUp()));
  }
}
BENCHMARK(StatusText)->Arg(0)->Arg(10000)->Unit(benchmark::kMicrosecond);

void NextStatusText(benchmark::State& state) {
  FleetStatus status;
  UsageRecords records(&status);
  Fill(records, state.range(0));
  ProcessWatch process;
  StatusWriter writer;
  std::int64_t next = 0;
  for (auto _ : state) {
    state.PauseTiming();
    spdlog::set_level(spdlog::level::warn);
    for (int report = 0; report < 85; ++report) {
      auto request = SomeRequest(next++ % state.range(0));
      records.ApplyRequest(request);
    }
    state.ResumeTiming();
    benchmark::DoNotOptimize(writer.Write(status.TakeSnapshot(), process.LookUp()));
  }
}
BENCHMARK(NextStatusText)->Arg(10000)->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
  // Log lines are formatted and written, to nowhere.
  spdlog::set_default_logger(spdlog::basic_logger_mt("bench", "/dev/null"));
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
}
