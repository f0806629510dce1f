#include "ImageFiles.h"

#include <fcntl.h>
#include <jerror.h>
#include <jpeglib.h>
#include <png.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csetjmp>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace kvimage_cli {

namespace {

std::string Quoted(const std::string& path) { return "'" + path + "'"; }

std::string LowerExtension(const std::string& path) {
  const size_t slash = path.find_last_of('/');
  const size_t dot = path.find_last_of('.');
  if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return "";
  std::string extension = path.substr(dot + 1);
  for (char& c : extension) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return extension;
}

std::vector<unsigned char> ReadWholeFile(const std::string& path) {
  struct stat info;
  if (stat(path.c_str(), &info) != 0) {
    throw FileError("cannot read " + Quoted(path) + ": " + std::strerror(errno));
  }
  if (S_ISDIR(info.st_mode)) throw FileError("cannot read " + Quoted(path) + ": it is a directory");
  FILE* file = std::fopen(path.c_str(), "rb");
  if (!file) throw FileError("cannot read " + Quoted(path) + ": " + std::strerror(errno));
  std::vector<unsigned char> data;
  unsigned char block[65536];
  size_t got;
  while ((got = std::fread(block, 1, sizeof block, file)) > 0) data.insert(data.end(), block, block + got);
  const bool failed = std::ferror(file) != 0;
  const int error = errno;
  std::fclose(file);
  if (failed) throw FileError("cannot read " + Quoted(path) + ": " + std::strerror(error));
  return data;
}

// The engine's images are 32-bit in bytes.
void CheckEngineSize(const std::string& path, uint64_t width, uint64_t height) {
  if (width == 0 || height == 0) throw FileError(Quoted(path) + " has no pixels");
  if (width * height * 4 > 0xFFFFFFFFull) {
    throw FileError(Quoted(path) + " is too large (" + std::to_string(width) + "x" + std::to_string(height) +
                    "): an image holds at most 4 GiB");
  }
}

// ---------------------------------------------------------------------------
// PNG. libpng reports errors by longjmp: the jobs below keep every object that
// must survive a jump in a record owned by the caller, and the functions that
// libpng may jump out of hold nothing that needs destroying.
// ---------------------------------------------------------------------------

struct PngReadJob {
  const std::vector<unsigned char>* data = nullptr;
  size_t offset = 0;
  png_structp png = nullptr;
  png_infop info = nullptr;
  Image* image = nullptr;
  std::vector<png_bytep> rows;
  char message[256] = {0};
};

void PngError(png_structp png, png_const_charp message) {
  char* buffer = static_cast<char*>(png_get_error_ptr(png));
  std::snprintf(buffer, 256, "%s", message);
  png_longjmp(png, 1);
}

void PngWarning(png_structp, png_const_charp) {}

void PngReadFromMemory(png_structp png, png_bytep out, png_size_t length) {
  PngReadJob* job = static_cast<PngReadJob*>(png_get_io_ptr(png));
  if (job->data->size() - job->offset < length) png_error(png, "the file is truncated");
  std::memcpy(out, job->data->data() + job->offset, length);
  job->offset += length;
}

void ReadPngBody(PngReadJob* job) {
  png_set_read_fn(job->png, job, PngReadFromMemory);
  png_read_info(job->png, job->info);
  const png_uint_32 width = png_get_image_width(job->png, job->info);
  const png_uint_32 height = png_get_image_height(job->png, job->info);
  if (static_cast<uint64_t>(width) * height * 4 > 0xFFFFFFFFull) {
    png_error(job->png, "too large: an image holds at most 4 GiB");
  }
  const int colourType = png_get_color_type(job->png, job->info);
  if (png_get_bit_depth(job->png, job->info) == 16) png_set_strip_16(job->png);
  if (colourType == PNG_COLOR_TYPE_PALETTE) png_set_palette_to_rgb(job->png);
  if (colourType == PNG_COLOR_TYPE_GRAY && png_get_bit_depth(job->png, job->info) < 8) {
    png_set_expand_gray_1_2_4_to_8(job->png);
  }
  if (png_get_valid(job->png, job->info, PNG_INFO_tRNS)) png_set_tRNS_to_alpha(job->png);
  if (colourType == PNG_COLOR_TYPE_GRAY || colourType == PNG_COLOR_TYPE_GRAY_ALPHA) png_set_gray_to_rgb(job->png);
  png_set_filler(job->png, 0xFF, PNG_FILLER_AFTER);
  png_set_bgr(job->png);
  png_set_interlace_handling(job->png);
  png_read_update_info(job->png, job->info);
  if (png_get_rowbytes(job->png, job->info) != static_cast<png_size_t>(width) * 4) {
    png_error(job->png, "unsupported pixel layout");
  }
  job->image->width = width;
  job->image->height = height;
  job->image->bgra.assign(static_cast<size_t>(width) * height * 4, 0);
  job->rows.resize(height);
  for (png_uint_32 y = 0; y < height; ++y) job->rows[y] = job->image->Pixel(0, y);
  png_read_image(job->png, job->rows.data());
  png_read_end(job->png, nullptr);
}

bool ReadPngGuarded(PngReadJob* job) {
  if (setjmp(png_jmpbuf(job->png))) return false;
  ReadPngBody(job);
  return true;
}

Image ReadPng(const std::string& path, const std::vector<unsigned char>& data) {
  Image image;
  PngReadJob job;
  job.data = &data;
  job.image = &image;
  job.png = png_create_read_struct(PNG_LIBPNG_VER_STRING, job.message, PngError, PngWarning);
  if (!job.png) throw std::bad_alloc();
  job.info = png_create_info_struct(job.png);
  if (!job.info) {
    png_destroy_read_struct(&job.png, nullptr, nullptr);
    throw std::bad_alloc();
  }
  // Checked against the engine's limit before any pixel memory is taken.
  png_set_user_limits(job.png, 0x7FFFFFFF, 0x7FFFFFFF);
  const bool ok = ReadPngGuarded(&job);
  png_destroy_read_struct(&job.png, &job.info, nullptr);
  if (!ok) throw FileError(Quoted(path) + " is not a readable PNG file: " + job.message);
  CheckEngineSize(path, image.width, image.height);
  return image;
}

struct PngWriteJob {
  png_structp png = nullptr;
  png_infop info = nullptr;
  const Image* image = nullptr;
  bool withAlpha = true;
  int compression = 6;
  std::vector<unsigned char>* out = nullptr;
  std::vector<unsigned char> row;
  char message[256] = {0};
};

void PngWriteToMemory(png_structp png, png_bytep data, png_size_t length) {
  PngWriteJob* job = static_cast<PngWriteJob*>(png_get_io_ptr(png));
  job->out->insert(job->out->end(), data, data + length);
}

void PngFlush(png_structp) {}

void WritePngBody(PngWriteJob* job) {
  const Image& image = *job->image;
  png_set_write_fn(job->png, job, PngWriteToMemory, PngFlush);
  png_set_compression_level(job->png, job->compression);
  png_set_IHDR(job->png, job->info, image.width, image.height, 8,
               job->withAlpha ? PNG_COLOR_TYPE_RGBA : PNG_COLOR_TYPE_RGB, PNG_INTERLACE_NONE,
               PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
  png_write_info(job->png, job->info);
  const unsigned int channels = job->withAlpha ? 4 : 3;
  job->row.resize(static_cast<size_t>(image.width) * channels);
  for (unsigned int y = 0; y < image.height; ++y) {
    const unsigned char* in = image.Pixel(0, y);
    unsigned char* out = job->row.data();
    for (unsigned int x = 0; x < image.width; ++x, in += 4, out += channels) {
      out[0] = in[2];
      out[1] = in[1];
      out[2] = in[0];
      if (job->withAlpha) out[3] = in[3];
    }
    png_write_row(job->png, job->row.data());
  }
  png_write_end(job->png, nullptr);
}

bool WritePngGuarded(PngWriteJob* job) {
  if (setjmp(png_jmpbuf(job->png))) return false;
  WritePngBody(job);
  return true;
}

std::vector<unsigned char> EncodePng(const std::string& path, const Image& image, int compression) {
  std::vector<unsigned char> out;
  PngWriteJob job;
  job.image = &image;
  job.out = &out;
  job.compression = compression;
  job.withAlpha = false;
  for (size_t i = 3; i < image.bgra.size(); i += 4) {
    if (image.bgra[i] != 255) {
      job.withAlpha = true;
      break;
    }
  }
  job.png = png_create_write_struct(PNG_LIBPNG_VER_STRING, job.message, PngError, PngWarning);
  if (!job.png) throw std::bad_alloc();
  job.info = png_create_info_struct(job.png);
  if (!job.info) {
    png_destroy_write_struct(&job.png, nullptr);
    throw std::bad_alloc();
  }
  const bool ok = WritePngGuarded(&job);
  png_destroy_write_struct(&job.png, &job.info);
  if (!ok) throw FileError("cannot write " + Quoted(path) + ": " + job.message);
  return out;
}

// ---------------------------------------------------------------------------
// JPEG, with the same discipline for libjpeg's longjmp.
// ---------------------------------------------------------------------------

struct JpegErrorManager {
  jpeg_error_mgr base;
  jmp_buf jump;
  char message[JMSG_LENGTH_MAX] = {0};
};

void JpegErrorExit(j_common_ptr info) {
  JpegErrorManager* manager = reinterpret_cast<JpegErrorManager*>(info->err);
  (*info->err->format_message)(info, manager->message);
  std::longjmp(manager->jump, 1);
}

// A decoder that runs out of data pads the image and carries on with a
// warning; a short file is an error here.
void JpegEmitMessage(j_common_ptr info, int level) {
  if (level < 0 && info->err->msg_code == JWRN_JPEG_EOF) {
    JpegErrorManager* manager = reinterpret_cast<JpegErrorManager*>(info->err);
    std::snprintf(manager->message, sizeof manager->message, "the file is truncated");
    std::longjmp(manager->jump, 1);
  }
}

struct JpegReadJob {
  jpeg_decompress_struct decoder;
  JpegErrorManager errors;
  const std::vector<unsigned char>* data = nullptr;
  Image* image = nullptr;
  bool tooLarge = false;
};

void ReadJpegBody(JpegReadJob* job) {
  jpeg_decompress_struct* decoder = &job->decoder;
  jpeg_mem_src(decoder, job->data->data(), static_cast<unsigned long>(job->data->size()));
  jpeg_read_header(decoder, TRUE);
  if (decoder->jpeg_color_space == JCS_CMYK || decoder->jpeg_color_space == JCS_YCCK) {
    std::snprintf(job->errors.message, sizeof job->errors.message, "CMYK JPEG files are not supported");
    std::longjmp(job->errors.jump, 1);
  }
  const uint64_t width = decoder->image_width, height = decoder->image_height;
  if (width * height * 4 > 0xFFFFFFFFull) {
    job->tooLarge = true;
    job->image->width = decoder->image_width;
    job->image->height = decoder->image_height;
    return;
  }
  decoder->out_color_space = JCS_EXT_BGRA;
  jpeg_start_decompress(decoder);
  job->image->width = decoder->output_width;
  job->image->height = decoder->output_height;
  job->image->bgra.assign(static_cast<size_t>(decoder->output_width) * decoder->output_height * 4, 255);
  while (decoder->output_scanline < decoder->output_height) {
    JSAMPROW row = job->image->Pixel(0, decoder->output_scanline);
    jpeg_read_scanlines(decoder, &row, 1);
  }
  jpeg_finish_decompress(decoder);
}

bool ReadJpegGuarded(JpegReadJob* job) {
  if (setjmp(job->errors.jump)) return false;
  ReadJpegBody(job);
  return true;
}

Image ReadJpeg(const std::string& path, const std::vector<unsigned char>& data) {
  Image image;
  JpegReadJob job;
  job.data = &data;
  job.image = &image;
  job.decoder.err = jpeg_std_error(&job.errors.base);
  job.errors.base.error_exit = JpegErrorExit;
  job.errors.base.emit_message = JpegEmitMessage;
  jpeg_create_decompress(&job.decoder);
  const bool ok = ReadJpegGuarded(&job);
  jpeg_destroy_decompress(&job.decoder);
  if (!ok) throw FileError(Quoted(path) + " is not a readable JPEG file: " + job.errors.message);
  CheckEngineSize(path, image.width, image.height);
  return image;
}

struct JpegWriteJob {
  jpeg_compress_struct encoder;
  JpegErrorManager errors;
  const Image* image = nullptr;
  WriteOptions options;
  unsigned char* buffer = nullptr;
  unsigned long size = 0;
  std::vector<unsigned char> row;
};

void WriteJpegBody(JpegWriteJob* job) {
  const Image& image = *job->image;
  jpeg_compress_struct* encoder = &job->encoder;
  jpeg_mem_dest(encoder, &job->buffer, &job->size);
  encoder->image_width = image.width;
  encoder->image_height = image.height;
  encoder->input_components = 3;
  encoder->in_color_space = JCS_RGB;
  jpeg_set_defaults(encoder);
  jpeg_set_quality(encoder, job->options.jpegQuality, TRUE);
  jpeg_start_compress(encoder, TRUE);
  job->row.resize(static_cast<size_t>(image.width) * 3);
  const unsigned char* matte = job->options.matte;  // red, green, blue
  while (encoder->next_scanline < encoder->image_height) {
    const unsigned char* in = image.Pixel(0, encoder->next_scanline);
    unsigned char* out = job->row.data();
    for (unsigned int x = 0; x < image.width; ++x, in += 4, out += 3) {
      const unsigned int alpha = in[3], rest = 255 - alpha;
      out[0] = static_cast<unsigned char>((in[2] * alpha + matte[0] * rest + 127) / 255);
      out[1] = static_cast<unsigned char>((in[1] * alpha + matte[1] * rest + 127) / 255);
      out[2] = static_cast<unsigned char>((in[0] * alpha + matte[2] * rest + 127) / 255);
    }
    JSAMPROW row = job->row.data();
    jpeg_write_scanlines(encoder, &row, 1);
  }
  jpeg_finish_compress(encoder);
}

bool WriteJpegGuarded(JpegWriteJob* job) {
  if (setjmp(job->errors.jump)) return false;
  WriteJpegBody(job);
  return true;
}

std::vector<unsigned char> EncodeJpeg(const std::string& path, const Image& image, const WriteOptions& options) {
  JpegWriteJob job;
  job.image = &image;
  job.options = options;
  job.encoder.err = jpeg_std_error(&job.errors.base);
  job.errors.base.error_exit = JpegErrorExit;
  jpeg_create_compress(&job.encoder);
  const bool ok = WriteJpegGuarded(&job);
  jpeg_destroy_compress(&job.encoder);
  std::vector<unsigned char> out;
  if (ok) out.assign(job.buffer, job.buffer + job.size);
  std::free(job.buffer);
  if (!ok) throw FileError("cannot write " + Quoted(path) + ": " + job.errors.message);
  return out;
}

}  // namespace

Image ReadImage(const std::string& path) {
  const std::vector<unsigned char> data = ReadWholeFile(path);
  static const unsigned char kPngSignature[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
  if (data.size() >= 8 && std::memcmp(data.data(), kPngSignature, 8) == 0) return ReadPng(path, data);
  if (data.size() >= 3 && data[0] == 0xFF && data[1] == 0xD8 && data[2] == 0xFF) return ReadJpeg(path, data);
  if (data.empty()) throw FileError("cannot read " + Quoted(path) + ": the file is empty");
  throw FileError("cannot read " + Quoted(path) + ": unsupported format (not a PNG or JPEG file)");
}

bool IsWritableImageName(const std::string& path) {
  const std::string extension = LowerExtension(path);
  return extension == "png" || extension == "jpg" || extension == "jpeg";
}

void WriteImage(const std::string& path, const Image& image, const WriteOptions& options) {
  const std::string extension = LowerExtension(path);
  if (extension == "png") {
    WriteFileAtomically(path, EncodePng(path, image, options.pngCompression));
  } else if (extension == "jpg" || extension == "jpeg") {
    WriteFileAtomically(path, EncodeJpeg(path, image, options));
  } else {
    throw FileError("cannot write " + Quoted(path) + ": unsupported format (use .png, .jpg or .jpeg)");
  }
}

void WriteFileAtomically(const std::string& path, const std::vector<unsigned char>& data) {
  const size_t slash = path.find_last_of('/');
  std::string pattern = (slash == std::string::npos ? std::string("./") : path.substr(0, slash + 1)) + "." +
                        path.substr(slash == std::string::npos ? 0 : slash + 1) + ".XXXXXX";
  std::vector<char> name(pattern.begin(), pattern.end());
  name.push_back('\0');
  const int fd = mkstemp(name.data());
  if (fd < 0) throw FileError("cannot write " + Quoted(path) + ": " + std::strerror(errno));
  size_t written = 0;
  int error = 0;
  while (written < data.size()) {
    const ssize_t n = ::write(fd, data.data() + written, data.size() - written);
    if (n < 0) {
      if (errno == EINTR) continue;
      error = errno;
      break;
    }
    written += static_cast<size_t>(n);
  }
  // mkstemp makes the file private; give it the permissions of a new file.
  const mode_t mask = umask(0);
  umask(mask);
  if (error == 0 && fchmod(fd, 0666 & ~mask) != 0) error = errno;
  if (::close(fd) != 0 && error == 0) error = errno;
  if (error == 0 && std::rename(name.data(), path.c_str()) != 0) error = errno;
  if (error != 0) {
    ::unlink(name.data());
    throw FileError("cannot write " + Quoted(path) + ": " + std::strerror(error));
  }
}

}  // namespace kvimage_cli
