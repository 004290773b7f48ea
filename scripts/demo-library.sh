#!/usr/bin/env bash
# Prepares a demo library of real photographs in DIR (default ~/.velko/demo/Photos): the nature
# photographs of Debian's mate-backgrounds package, each given a capture date, a place and
# camera data in its EXIF (with exiv2), so every tool has something to show. Files already
# there are left as they are, so ratings and edits made on them survive a second run.
set -euo pipefail
dir=${1:-"$(getent passwd "$(id -u)" | cut -d: -f6)/.velko/demo/Photos"}
source=/usr/share/backgrounds/mate/nature
if [[ ! -d $source ]]; then
  echo "demo-library: $source is missing; install Debian's mate-backgrounds package" >&2
  exit 1
fi
mkdir -p "$dir"

# name | capture time | latitude ref deg/min/sec | longitude ref deg/min/sec | camera | lens | exposure
rows=(
  "Aqua|2023:03:18 11:42:05|N 38 42 49|W 9 8 21|Fujifilm|X-T4|XF16-55mmF2.8 R LM WR|1/500|56/10|160|23"
  "Blinds|2023:05:02 17:20:44|N 48 51 24|E 2 21 8|Canon|EOS R6|RF24-105mm F4 L IS USM|1/125|40/10|400|50"
  "Dune|2023:07:29 06:55:10|N 23 52 0|E 5 31 0|Nikon|Z 6II|NIKKOR Z 24-70mm f/4 S|1/1000|80/10|100|70"
  "FreshFlower|2023:09:09 09:03:33|N 35 0 42|E 135 46 6|Sony|ILCE-7M3|FE 90mm F2.8 Macro G OSS|1/250|28/10|200|90"
  "Garden|2024:04:21 14:15:00|N 51 28 40|W 0 17 43|Canon|EOS R6|RF35mm F1.8 MACRO IS STM|1/320|56/10|100|35"
  "GreenMeadow|2024:06:01 19:48:12|N 64 8 48|W 21 56 24|Nikon|Z 6II|NIKKOR Z 14-30mm f/4 S|1/60|110/10|64|14"
  "LadyBird|2024:06:15 10:30:27|S 33 55 31|E 18 25 26|Sony|ILCE-7M3|FE 90mm F2.8 Macro G OSS|1/400|40/10|320|90"
  "RainDrops|2024:10:03 08:12:55|N 49 16 59|W 123 7 9|Fujifilm|X-T4|XF35mmF1.4 R|1/160|20/10|800|35"
)

for row in "${rows[@]}"; do
  IFS='|' read -r name taken lat lon make model lens shutter fnumber iso focal <<<"$row"
  target="$dir/$name.jpg"
  [[ -e $target ]] && continue
  cp "$source/$name.jpg" "$target.tmp"
  read -r latRef latD latM latS <<<"$lat"
  read -r lonRef lonD lonM lonS <<<"$lon"
  exiv2 -q \
    -M"set Exif.Image.Make Ascii $make" \
    -M"set Exif.Image.Model Ascii $model" \
    -M"set Exif.Image.Orientation Short 1" \
    -M"set Exif.Photo.DateTimeOriginal Ascii $taken" \
    -M"set Exif.Photo.LensModel Ascii $lens" \
    -M"set Exif.Photo.ExposureTime Rational $shutter" \
    -M"set Exif.Photo.FNumber Rational $fnumber" \
    -M"set Exif.Photo.ISOSpeedRatings Short $iso" \
    -M"set Exif.Photo.FocalLength Rational $focal/1" \
    -M"set Exif.GPSInfo.GPSLatitudeRef Ascii $latRef" \
    -M"set Exif.GPSInfo.GPSLatitude Rational $latD/1 $latM/1 $latS/1" \
    -M"set Exif.GPSInfo.GPSLongitudeRef Ascii $lonRef" \
    -M"set Exif.GPSInfo.GPSLongitude Rational $lonD/1 $lonM/1 $lonS/1" \
    "$target.tmp"
  mv "$target.tmp" "$target"
done
echo "$dir"
