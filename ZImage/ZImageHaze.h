// Haze removal: from an RGBA float photograph to the same photograph with the
// veil of the atmosphere taken out, by the dark channel prior.
//
// The model is I = J t + A (1 - t): the observed colour I mixes the scene
// radiance J with the airlight A by the transmission t. The costly part, a map
// of how strongly each pixel is veiled, is computed once on a working copy of
// about 100,000 pixels (so its cost does not grow with the photograph),
// carried back to full size by joint bilateral upsampling, and cached in the
// image's HazeSettings; the user's strength acts only in the last, cheap pass.
//
// The stages are members of ZImage (declared in ZImage.h, implemented in
// ZImageHaze.cpp) and take only RGBA images with 32-bit float components
// (type code 32, depth 32, 1.0 full scale); anything else throws
// ZException("Invalid Bitmap"). Each per-pixel stage is one OpenMP region over
// rows with a static split and `threadCount` threads, none of which gets less
// than a quarter megapixel; no result depends on the team size, except the
// last bits of the refinement's sparse solve, where the solver's own threads
// may round differently.
//
//   ZImage::estimateDarkChannel(airlight)      working image -> map D, airlight
//   ZImage::refineDarkChannel(D)               working image, D refined in place
//   ZImage::upsampleDarkChannel(D, working)    full image    -> full-size map
//   ZImage::applyHazeRemoval(map, A, s)        full image, changed in place
//   ZImage::upsampleAndApplyHazeRemoval(D, working, A, s)
//                                              the last two in one pass, row
//                                              by row, without the full map
//
// Maps are row-major float arrays of width x height without padding, owned by
// the std::unique_ptr that hands them out.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <thread>

class CSparseSingle;
class ZImage;

// The per-image record of the tool. The plug-in makes one per image of the
// host, the preview keeps its map between changes of the strength.
struct HazeSettings {
    // In percent; 0 leaves the image untouched.
    std::int32_t strength = 0;
    // Colour of the atmosphere, written by the run that computed airDepthMap.
    std::array<float, 3> airlight{};
    // Full-size veil map of the image it was computed for, or null while not
    // computed. A map is only valid for an image of the same size.
    std::unique_ptr<float[]> airDepthMap;
};

struct HazeWorkingSize {
    int width;
    int height;
};

// Size of the working copy for a photograph of width x height: about 100,000
// pixels at the photograph's aspect ratio, whether that shrinks or enlarges.
// Never less than 1 x 1, for needle-thin pictures. Throws "Invalid Parameter"
// for an empty size.
HazeWorkingSize hazeWorkingSize(int width, int height);

// The sparse system that refineDarkChannel solves for a working image of
// n = width x height pixels: L + 0.001 I, with L the closed-form matting
// Laplacian of the image's 3 x 3 windows (covariance regulariser 0.001 / 9).
// Unknown y * width + x is pixel (x, y). The matrix is initialised, filled
// with its upper triangle (diagonal included) and compressed: ia, ja and a
// of `matrix` are then the one-based rows that SPDS reads as mtype -2.
// Values do not depend on threadCount. Throws "Invalid Bitmap" for anything
// but an RGBA float image.
void assembleMattingSystem(const ZImage& working, CSparseSingle& matrix);

// Starts, on a thread of its own, the part of the refinement of a picture of
// width x height that does not depend on its pixels: the solver orders the
// unknowns of the working system, whose structure follows from the working
// size alone, and keeps the order for the refinement that follows, which
// then takes it instead of working it out. Meant to run while the picture
// decodes; nothing in the result changes. Destroying the object waits for the
// thread. Nothing throws: a failure (an empty size, no thread to be had, no
// memory in the thread) costs only the time, as the refinement then orders
// its system itself.
class RefinementPreparation {
public:
    RefinementPreparation(int width, int height);
    ~RefinementPreparation();
    RefinementPreparation(const RefinementPreparation&) = delete;
    RefinementPreparation& operator=(const RefinementPreparation&) = delete;

private:
    std::thread m_thread;
};

// Whether a run keeps the full-size map for a later change of strength.
enum class DepthMap {
    Keep,    // in settings.airDepthMap: the preview, whose strength changes
    Discard, // made row by row and used at once: a run that writes its file
};

// Removes the haze from `image` in place with settings.strength. With strength
// 0 nothing happens at all. Otherwise the veil map is computed when
// settings.airDepthMap is null (writing settings.airlight, and the map unless
// it is discarded) and reused when it is not. On an exception the image is
// unchanged and airDepthMap stays null; nothing leaks.
void runHazeRemoval(ZImage& image, HazeSettings& settings, DepthMap depthMap = DepthMap::Keep);

// The run of a photograph held in any format, into `target` of the given
// colour type and depth: the pixels of source.CopyTo(RGBA float), then
// runHazeRemoval with the map discarded, then CopyTo(target), bit for bit,
// without ever holding the float picture or the full-size map. The working
// copy is resampled from rows converted on the way, and bands of a few rows
// are converted, freed of haze and converted again while in the cache. A
// cached airDepthMap is used as runHazeRemoval would use it. On an exception
// airDepthMap stays as it was and nothing leaks; the target may be partly
// written. When given, rowsReady(n) is told that the target's first n rows
// are complete, with n growing to the target's height, from one thread at a
// time while the others go on with later bands: an encoder fed from it runs
// beside the bands. It must not throw; a target made beforehand at the same
// size and format is kept, so the encoder may be opened on it first.
void runHazeRemovalInto(const ZImage& source, HazeSettings& settings, ZImage& target,
                        int colourType, int depth,
                        const std::function<void(int rows)>& rowsReady = {});
