#pragma once

#include <memory>
#include <string>

#include <QImage>

#include "Common/Foundation/Result.h"
#include "Common/Platform/Image.h"

namespace utilia::tools {

// A picture that was taken or opened.
struct CapturedPicture {
    std::shared_ptr<platform::Image> image;
    QImage shown;  // its pixels, shared with the image
};

// Reads an image file of any kind that the framework reads. Fails with the file's name.
//
// Threads: any.
Result<CapturedPicture> readPicture(const std::string& path);

}  // namespace utilia::tools
