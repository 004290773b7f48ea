#include "app/Exif.h"

#include <algorithm>
#include <chrono>
#include <climits>
#include <cmath>
#include <cstdio>
#include <libexif/exif-data.h>
#include <memory>

namespace velko::app {
namespace {

struct ExifDataFree {
  void operator()(ExifData* d) const { exif_data_unref(d); }
};

class Reader {
public:
  explicit Reader(ExifData* data) : data_(data), order_(exif_data_get_byte_order(data)) {}

  ExifEntry* entry(ExifIfd ifd, int tag) const {
    return exif_content_get_entry(data_->ifd[ifd], static_cast<ExifTag>(tag));
  }

  /// An ASCII tag without its trailing NULs and blanks; absent when empty.
  std::optional<std::string> text(ExifIfd ifd, int tag) const {
    const ExifEntry* e = entry(ifd, tag);
    if (!e || e->format != EXIF_FORMAT_ASCII || !e->data || e->size == 0) {
      return std::nullopt;
    }
    std::string s(reinterpret_cast<const char*>(e->data), e->size);
    s.resize(s.find('\0') == std::string::npos ? s.size() : s.find('\0'));
    while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) {
      s.pop_back();
    }
    if (s.empty()) {
      return std::nullopt;
    }
    return s;
  }

  /// Component `i` of a numeric tag (integer or rational) as a number; absent when the tag is
  /// missing, too short or has a zero denominator.
  std::optional<double> number(ExifIfd ifd, int tag, unsigned i = 0) const {
    const ExifEntry* e = entry(ifd, tag);
    if (!e || !e->data || i >= e->components) {
      return std::nullopt;
    }
    const unsigned size = exif_format_get_size(e->format);
    if (size == 0 || e->size < (i + 1) * size) {
      return std::nullopt;
    }
    const unsigned char* p = e->data + i * size;
    switch (e->format) {
    case EXIF_FORMAT_BYTE: return double(*p);
    case EXIF_FORMAT_SHORT: return double(exif_get_short(p, order_));
    case EXIF_FORMAT_SSHORT: return double(exif_get_sshort(p, order_));
    case EXIF_FORMAT_LONG: return double(exif_get_long(p, order_));
    case EXIF_FORMAT_SLONG: return double(exif_get_slong(p, order_));
    case EXIF_FORMAT_RATIONAL: {
      const ExifRational r = exif_get_rational(p, order_);
      return r.denominator == 0 ? std::nullopt : std::optional(double(r.numerator) / r.denominator);
    }
    case EXIF_FORMAT_SRATIONAL: {
      const ExifSRational r = exif_get_srational(p, order_);
      return r.denominator == 0 ? std::nullopt : std::optional(double(r.numerator) / r.denominator);
    }
    default: return std::nullopt;
    }
  }

  /// A GPS coordinate: degrees, minutes, seconds and a hemisphere reference.
  std::optional<double> coordinate(int tag, int refTag, char negative, double limit) const {
    const auto d = number(EXIF_IFD_GPS, tag, 0);
    const auto ref = text(EXIF_IFD_GPS, refTag);
    if (!d || !ref) {
      return std::nullopt;
    }
    // Minutes and seconds are optional: some writers put decimal degrees in the first part.
    const double value = *d + number(EXIF_IFD_GPS, tag, 1).value_or(0) / 60 +
                         number(EXIF_IFD_GPS, tag, 2).value_or(0) / 3600;
    if (!std::isfinite(value) || value > limit) {
      return std::nullopt;
    }
    return (*ref)[0] == negative ? -value : value;
  }

private:
  ExifData* data_;
  ExifByteOrder order_;
};

/// "YYYY:MM:DD HH:MM:SS" as Unix seconds, the clock time read as UTC.
std::optional<std::int64_t> dateTime(const std::optional<std::string>& text) {
  if (!text) {
    return std::nullopt;
  }
  int y = 0, mo = 0, d = 0, h = 0, mi = 0, s = 0;
  if (std::sscanf(text->c_str(), "%4d:%2d:%2d %2d:%2d:%2d", &y, &mo, &d, &h, &mi, &s) != 6) {
    return std::nullopt;
  }
  using namespace std::chrono;
  const year_month_day day{year(y), month(static_cast<unsigned>(mo)), std::chrono::day(static_cast<unsigned>(d))};
  if (y < 1800 || !day.ok() || h > 23 || mi > 59 || s > 60) {
    return std::nullopt; // "0000:00:00 00:00:00" and other placeholders
  }
  return sys_days(day).time_since_epoch().count() * std::int64_t{86400} + h * 3600 + mi * 60 + s;
}

std::optional<double> positive(std::optional<double> v) {
  return v && *v > 0 && std::isfinite(*v) ? v : std::nullopt;
}

} // namespace

ExifFacts parseExif(std::string_view block) {
  ExifFacts f;
  if (block.empty()) {
    return f;
  }
  // Loaded without FOLLOW_SPECIFICATION: that option "repairs" the block by adding the
  // mandatory tags with made-up values (DateTime among them), which would read as facts.
  std::unique_ptr<ExifData, ExifDataFree> data(exif_data_new());
  if (!data) {
    return f;
  }
  exif_data_unset_option(data.get(), EXIF_DATA_OPTION_FOLLOW_SPECIFICATION);
  // PNG's eXIf chunk and a TIFF file itself hold the bare TIFF structure; libexif wants the
  // "Exif\0\0" header in front of it.
  std::string prefixed;
  if (block.starts_with(std::string_view("II*\0", 4)) || block.starts_with(std::string_view("MM\0*", 4))) {
    prefixed.reserve(block.size() + 6);
    prefixed.append("Exif\0\0", 6).append(block);
    block = prefixed;
  }
  exif_data_load_data(data.get(), reinterpret_cast<const unsigned char*>(block.data()),
                      static_cast<unsigned>(std::min<std::size_t>(block.size(), UINT_MAX)));
  const Reader r(data.get());

  f.captureTime = dateTime(r.text(EXIF_IFD_EXIF, EXIF_TAG_DATE_TIME_ORIGINAL));
  if (!f.captureTime) {
    f.captureTime = dateTime(r.text(EXIF_IFD_0, EXIF_TAG_DATE_TIME));
  }
  f.latitude = r.coordinate(EXIF_TAG_GPS_LATITUDE, EXIF_TAG_GPS_LATITUDE_REF, 'S', 90);
  f.longitude = r.coordinate(EXIF_TAG_GPS_LONGITUDE, EXIF_TAG_GPS_LONGITUDE_REF, 'W', 180);
  if (!f.latitude || !f.longitude) {
    f.latitude.reset(); // half a position is no position
    f.longitude.reset();
  }
  f.cameraMake = r.text(EXIF_IFD_0, EXIF_TAG_MAKE);
  f.cameraModel = r.text(EXIF_IFD_0, EXIF_TAG_MODEL);
  f.lens = r.text(EXIF_IFD_EXIF, EXIF_TAG_LENS_MODEL);
  if (auto iso = positive(r.number(EXIF_IFD_EXIF, EXIF_TAG_ISO_SPEED_RATINGS))) {
    f.iso = std::llround(*iso);
  }
  f.shutterSeconds = positive(r.number(EXIF_IFD_EXIF, EXIF_TAG_EXPOSURE_TIME));
  f.aperture = positive(r.number(EXIF_IFD_EXIF, EXIF_TAG_FNUMBER));
  f.focalLengthMM = positive(r.number(EXIF_IFD_EXIF, EXIF_TAG_FOCAL_LENGTH));
  if (auto o = r.number(EXIF_IFD_0, EXIF_TAG_ORIENTATION); o && *o >= 1 && *o <= 8) {
    f.orientation = static_cast<int>(*o);
  }
  return f;
}

} // namespace velko::app
