// Writers that write down what they are given; the test says how they finish.
#pragma once

#include <SelvioFacialCapture/platform/AssetWriter.h>

#include <atomic>
#include <set>
#include <utility>

#include "support/CallLog.h"

namespace selvio {

class FakeAssetWriter;

/// What the writers share. Fill it before the calls.
struct FakeWriterScript {
    std::vector<std::weak_ptr<FakeAssetWriter>> made;
    CallLog calls;
    std::set<std::string> refused;  ///< "writer" (cannot be made), "video", "audio" (inputs)
    std::atomic<bool> ready{true}, finishesAtOnce{false};
};

struct FakeAssetWriterInput final : AssetWriterInput {
    FakeAssetWriterInput(std::shared_ptr<FakeWriterScript> script, std::string name)
        : script(std::move(script)), name(std::move(name)) {}
    void setExpectsMediaDataInRealTime(bool expects) override { say(expects ? " real time" : " batch"); }
    [[nodiscard]] bool isReadyForMoreMediaData() const override { return script->ready; }
    bool appendSampleBuffer(const std::shared_ptr<SampleBuffer>&) override { return say(" sample"), true; }
    void markAsFinished() override { say(" finished"); }
    void say(const char* what) { script->calls.add(name + what); }

    const std::shared_ptr<FakeWriterScript> script;
    const std::string name;
};

class FakeAssetWriter final : public AssetWriter {
public:
    explicit FakeAssetWriter(std::shared_ptr<FakeWriterScript> script) : script_(std::move(script)) {}
    [[nodiscard]] AssetWriterStatus status() const override { return status_; }
    [[nodiscard]] bool canAddInput(const AssetWriterInput& input) const override {
        return !script_->refused.contains(dynamic_cast<const FakeAssetWriterInput&>(input).name);
    }
    void addInput(std::shared_ptr<AssetWriterInput> input) override {
        script_->calls.add("add " + dynamic_cast<const FakeAssetWriterInput&>(*input).name);
    }
    bool startWriting() override {
        script_->calls.add("start");
        status_ = AssetWriterStatus::Writing;
        return true;
    }
    void startSessionAtSourceTime(std::chrono::nanoseconds time) override {
        script_->calls.add("from " + std::to_string(time / std::chrono::seconds(1)) + " s");
    }
    void finishWriting(std::function<void()> completion) override {
        script_->calls.add("finish");
        completion_ = std::move(completion);
        if (script_->finishesAtOnce) finish(AssetWriterStatus::Completed);
    }
    void cancelWriting() override {
        script_->calls.add("cancel");
        status_ = AssetWriterStatus::Cancelled;
    }

    /// The end of the writing, as the test has it.
    void finish(AssetWriterStatus status) {
        status_ = status;
        if (const auto completion = std::exchange(completion_, nullptr)) completion();
    }

private:
    const std::shared_ptr<FakeWriterScript> script_;
    std::atomic<AssetWriterStatus> status_{AssetWriterStatus::Unknown};
    std::function<void()> completion_;
};

class FakeAssetWriterFactory final : public AssetWriterFactory {
public:
    explicit FakeAssetWriterFactory(std::shared_ptr<FakeWriterScript> script) : script_(std::move(script)) {}
    [[nodiscard]] Expected<std::shared_ptr<AssetWriter>> makeAssetWriter(const std::filesystem::path& path,
                                                                         const std::string& fileType) override {
        script_->calls.add("make " + fileType + " " + path.string());
        if (script_->refused.contains("writer")) return Error{"no room"};
        auto writer = std::make_shared<FakeAssetWriter>(script_);
        script_->made.push_back(writer);
        return std::shared_ptr<AssetWriter>(std::move(writer));
    }
    [[nodiscard]] std::shared_ptr<AssetWriterInput> makeVideoInput(const VideoSettings& settings) override {
        std::string what =
            "video " + settings.codec + " " + std::to_string(settings.width) + "x" + std::to_string(settings.height);
        for (const auto& [key, value] : settings.compressionProperties) what += " " + key + " " + std::to_string(value);
        script_->calls.add(what);
        return std::make_shared<FakeAssetWriterInput>(script_, "video");
    }
    [[nodiscard]] std::shared_ptr<AssetWriterInput> makeAudioInput(const AudioSettings& settings) override {
        script_->calls.add("audio " + std::to_string(settings.sampleRate) + " at " + std::to_string(settings.bitRate));
        return std::make_shared<FakeAssetWriterInput>(script_, "audio");
    }

private:
    const std::shared_ptr<FakeWriterScript> script_;
};

}  // namespace selvio
