// The fixture both extraction wrappers' tests start from: a wrapper made by
// its factory on the scripted task service, the task it made, a recorder
// told of its results and a fake clip to query.
#pragma once

#include <gtest/gtest.h>

#include <memory>

#include "FakeDataModel.h"
#include "ScriptedTaskService.h"

namespace ZOR::test {

// Wrapper: the wrapper's interface; Recorder: its callback, recording;
// create: its factory; lastTask: the scripted task the factory made;
// makeClip: the fake clip the tests query.
template <typename Wrapper, typename Recorder, auto create, auto lastTask, auto makeClip>
class ExtractWrapperFixture : public ::testing::Test {
protected:
    void SetUp() override {
        wrapper_ = ZorRef<Wrapper>::adopt(create());
        task_ = lastTask();
        ASSERT_NE(task_, nullptr);
        wrapper_->addCallBack(&recorder_);
    }
    void TearDown() override {
        wrapper_.reset();
        clip_.reset();
    }

    ZorRef<Wrapper> wrapper_;
    std::shared_ptr<ScriptedTaskState> task_;
    ZorRef<FakeClip> clip_ = makeClip();
    Recorder recorder_;
};

}  // namespace ZOR::test
