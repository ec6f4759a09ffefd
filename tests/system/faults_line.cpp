// Faults of the serial line and of the unit behind it.
#include "faults.h"
#include "faults_repeat.h"

#include "shared_word.h"

namespace faults
{

using namespace std::chrono_literals;

void LineCut_begin(Scene &scene)
{
    scene.stage.unit("line cut");
}

void LineCut_end(Scene &scene)
{
    scene.stage.unit("line restore");
}

// At the speed of the real line, so that the noise comes between the bytes of the replies.
static void begin_noise(Scene &scene, const std::string &bytes_per_second)
{
    scene.stage.unit("pace on");
    scene.stage.unit("garbage stream " + bytes_per_second);
}

static void end_noise(Scene &scene)
{
    scene.stage.unit("garbage off");
}

// So little that a link lasts.
void Garbage_begin(Scene &scene)
{
    begin_noise(scene, "0.5");
}

void Garbage_end(Scene &scene)
{
    end_noise(scene);
}

// So much that none does.
void NoiseWithoutEnd_begin(Scene &scene)
{
    begin_noise(scene, "20");
}

void NoiseWithoutEnd_end(Scene &scene)
{
    end_noise(scene);
}

// The byte that asks the host to be silent, by itself and among others, again and again.
void XoffInTheNoise_begin(Scene &scene)
{
    repeat(scene, 700ms, [&scene] {
        scene.stage.unit("xoff");
        scene.stage.unit("garbage \"\\x13~\\x13\"");
    });
}

void XoffInTheNoise_end(Scene &scene)
{
    end_repetition(scene);
}

// The last byte of each reply comes as the first of the next.
void RepliesOneByteLate_begin(Scene &scene)
{
    scene.stage.unit("lag 1");
}

void RepliesOneByteLate_end(Scene &scene)
{
    scene.stage.unit("lag off");
}

void RepliesOfAnotherModel_begin(Scene &scene)
{
    scene.stage.unit("model ZM300LT");
}

void RepliesOfAnotherModel_end(Scene &scene)
{
    scene.stage.unit("model ZR900PL");
}

void PortFileGone_begin(Scene &scene)
{
    scene.stage.unit("port unplug");
}

void PortFileGone_end(Scene &scene)
{
    scene.stage.unit("port plug");
}

// Longer than the stopwatches of the two processes run without being set anew. Another unit takes the place
// of the one that went, in the same surroundings.
void NoUnitFor150Days_begin(Scene &scene)
{
    scene.monitor_reads = false;
    scene.stage.unit("quit");
    scene.stage.run(30s);
    scene.stage.leap(150 * 24h, 6h);
}

void NoUnitFor150Days_end(Scene &scene)
{
    testbed::SimulatorOptions options;
    scene.stage.clock.attach(options);
    scene.kept.push_back(std::make_shared<testbed::Simulator>(bed::UPSSIM, options));
    scene.stage.unit("rate 0");
    if (scene.phase == Phase::ON_BATTERY || scene.phase == Phase::IN_GRACE)
        scene.stage.unit("mains fail");
}

}  // namespace faults
