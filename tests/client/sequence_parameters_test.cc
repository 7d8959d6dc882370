// SPDX-License-Identifier: BSD-2-Clause
// What the rewritten sets say is read by libavcodec's trace of headers, element by element, from
// sets that a real encoder makes, and by its decoder.
#include "qora/client/sequence_parameters.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <random>
#include <sstream>
#include <string>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavcodec/bsf.h>
#include <libavutil/log.h>
}

namespace qora::client {
namespace {

using Bytes = std::vector<uint8_t>;
using Elements = std::map<std::string, std::string>;
constexpr NalFraming kCodes = NalFraming::startCodes, kLengths = NalFraming::lengths;

const Bytes kStartCode = {0, 0, 0, 1};

struct Variant {
  AVPixelFormat format;
  int width, height;
  const char* options;  // the encoder's own
};
constexpr Variant kVariants[] = {
    {AV_PIX_FMT_YUV420P, 320, 240, "cabac=0:8x8dct=0:ref=1:bframes=0"},
    {AV_PIX_FMT_YUV420P, 1920, 1080, "ref=4"},
    {AV_PIX_FMT_YUV420P, 130, 98, "cqm=jvt:overscan=show:fullrange=on:chromaloc=2"},
    {AV_PIX_FMT_YUV422P, 64, 64, "nal-hrd=vbr:vbv-maxrate=500:vbv-bufsize=500:pic-struct=1"},
    {AV_PIX_FMT_YUV444P, 66, 70, "cqm=jvt:overscan=crop"},
    {AV_PIX_FMT_YUV420P10, 96, 80, "interlaced=1"},
};

Bytes encoded(const Variant& variant) {
  av_log_set_level(AV_LOG_ERROR);
  AVCodecContext* encoder = avcodec_alloc_context3(avcodec_find_encoder_by_name("libx264"));
  AVFrame* frame = av_frame_alloc();
  frame->width = encoder->width = variant.width;
  frame->height = encoder->height = variant.height;
  frame->format = encoder->pix_fmt = variant.format;
  encoder->time_base = {1, 25};
  AVDictionary* dictionary = nullptr;
  av_dict_set(&dictionary, "tune", "zerolatency", 0);
  av_dict_set(&dictionary, "x264-params", variant.options, 0);
  AVPacket* packet = av_packet_alloc();
  EXPECT_EQ(0, avcodec_open2(encoder, encoder->codec, &dictionary));
  EXPECT_EQ(0, av_frame_get_buffer(frame, 0));
  // Samples of 10 bits have two bytes: both of them 2 are in range, most other values are not.
  for (const AVBufferRef* memory : frame->buf) {
    if (memory != nullptr) std::fill_n(memory->data, memory->size, uint8_t{2});
  }
  EXPECT_EQ(0, avcodec_send_frame(encoder, frame));
  EXPECT_EQ(0, avcodec_send_frame(encoder, nullptr));
  EXPECT_EQ(0, avcodec_receive_packet(encoder, packet));
  const Bytes unit(packet->data, packet->data + packet->size);
  av_dict_free(&dictionary);
  av_packet_free(&packet);
  av_frame_free(&frame);
  avcodec_free_context(&encoder);
  return unit;
}

AVPacket* packetOf(const Bytes& unit) {
  AVPacket* packet = av_packet_alloc();
  av_new_packet(packet, static_cast<int>(unit.size()));
  std::copy(unit.begin(), unit.end(), packet->data);
  return packet;
}

Elements* traced = nullptr;
void takeLine(void*, int, const char* format, va_list arguments) {
  char line[500];
  vsnprintf(line, sizeof line, format, arguments);
  std::istringstream words(line);
  std::string position, name, bits, equals, value;
  words >> position >> name >> bits >> equals >> value;
  if (equals == "=" && !name.starts_with("rbsp_")) (*traced)[name] = value;
}
// Every element of a set.
Elements trace(std::span<const uint8_t> nal) {
  Bytes unit = kStartCode;
  unit.insert(unit.end(), nal.begin(), nal.end());
  Elements elements;
  traced = &elements;
  av_log_set_level(AV_LOG_TRACE);
  av_log_set_callback(takeLine);
  AVBSFContext* filter = nullptr;
  EXPECT_EQ(0, av_bsf_alloc(av_bsf_get_by_name("trace_headers"), &filter));
  filter->par_in->codec_id = AV_CODEC_ID_H264;
  EXPECT_EQ(0, av_bsf_init(filter));
  AVPacket* packet = packetOf(unit);
  EXPECT_EQ(0, av_bsf_send_packet(filter, packet));
  EXPECT_EQ(0, av_bsf_receive_packet(filter, packet));
  av_packet_free(&packet);
  av_bsf_free(&filter);
  av_log_set_callback(av_log_default_callback);
  av_log_set_level(AV_LOG_ERROR);
  return elements;
}

// What a set's elements should become: these, and the others as they are.
Elements expected(Elements elements, const SequenceFacts& facts) {
  const bool square = facts.aspectWidth == facts.aspectHeight, timed = facts.rateNumerator > 0;
  const bool placed = facts.chromaLocation >= 0;
  const int64_t references = std::stoi(elements["max_num_ref_frames"]), none = -1;
  const std::pair<const char*, int64_t> ours[] = {
      {"vui_parameters_present_flag", 1},
      {"aspect_ratio_info_present_flag", 1},
      {"aspect_ratio_idc", square ? 1 : 255},
      {"sar_width", square ? none : facts.aspectWidth},
      {"sar_height", square ? none : facts.aspectHeight},
      {"video_signal_type_present_flag", 1},
      {"video_format", 5},
      {"video_full_range_flag", facts.fullRange ? 1 : 0},
      {"colour_description_present_flag", 1},
      {"colour_primaries", facts.primaries},
      {"transfer_characteristics", facts.transfer},
      {"matrix_coefficients", facts.matrix},
      {"chroma_loc_info_present_flag", placed ? 1 : 0},
      {"chroma_sample_loc_type_top_field", facts.chromaLocation},
      {"chroma_sample_loc_type_bottom_field", facts.chromaLocation},
      {"timing_info_present_flag", timed ? 1 : 0},
      {"num_units_in_tick", timed ? facts.rateDenominator : none},
      {"time_scale", timed ? 2 * int64_t{facts.rateNumerator} : none},
      {"fixed_frame_rate_flag", timed ? (facts.fixedRate ? 1 : 0) : none},
      {"bitstream_restriction_flag", 1},
      {"max_num_reorder_frames", 0},
      {"max_dec_frame_buffering", std::max<int64_t>(1, references)},
  };
  for (const auto& [name, value] : ours) {
    elements[name] = std::to_string(value);
    if (value == none) elements.erase(name);
  }
  return elements;
}

const SequenceFacts kFacts[] = {
    {},
    {.rateNumerator = 25, .fixedRate = true, .chromaLocation = 1},
    {60'000, 1001, false, 12, 11, true, 5, 13, 6, 0},
    {1U << 30, 1, false, 256, 1, false, 0, 0, 0, -1},  // zeros in a row: bytes are put in
};

Bytes withLengths(std::span<const uint8_t> unit) {
  Bytes out;
  for (const uint8_t type : {7, 8, 6, 5}) {
    const auto nal = findNalUnit(unit, kCodes, type);
    for (int shift = 24; shift >= 0; shift -= 8) {
      out.push_back(static_cast<uint8_t>(nal.size() >> shift));
    }
    out.insert(out.end(), nal.begin(), nal.end());
  }
  return out;
}

TEST(SequenceParametersTest, SayWhatIsTrueAndKeepTheRest) {
  for (const Variant& variant : kVariants) {
    SCOPED_TRACE(variant.options);
    const Bytes unit = encoded(variant);
    const auto before = findNalUnit(unit, kCodes, 7);
    for (const SequenceFacts& facts : kFacts) {
      Bytes rewritten, again;
      ASSERT_EQ(1, rewriteSequenceParameters(unit, kCodes, facts, rewritten));
      const auto after = findNalUnit(rewritten, kCodes, 7);
      EXPECT_EQ(expected(trace(before), facts), trace(after));
      Bytes joined(unit.data(), before.data());
      joined.insert(joined.end(), after.begin(), after.end());
      joined.insert(joined.end(), before.data() + before.size(), unit.data() + unit.size());
      EXPECT_EQ(joined, rewritten);
      EXPECT_EQ(1, rewriteSequenceParameters(rewritten, kCodes, facts, again));
      EXPECT_EQ(rewritten, again);
      ASSERT_EQ(1, rewriteSequenceParameters(withLengths(unit), kLengths, facts, again));
      EXPECT_EQ(withLengths(rewritten), again);
    }
  }
}

TEST(SequenceParametersTest, AreWhatTheDecoderReports) {
  // One macroblock, and silent on all that is asked here.
  const Bytes silent = {0x67, 0x42, 0xC0, 0x0A, 0xDA, 0x79};
  Bytes talking;
  ASSERT_EQ(1, rewriteSequenceNal(silent, {}, talking));
  Elements elements = trace(talking);
  EXPECT_EQ("0", trace(silent)["vui_parameters_present_flag"]);
  EXPECT_EQ("1", elements["max_dec_frame_buffering"]);
  EXPECT_EQ("0", elements["pic_struct_present_flag"]);
  EXPECT_EQ(expected(elements, {}), elements);

  const SequenceFacts facts = {30, 1, true, 4, 3, false, 1, 13, 1, 1};
  Bytes unit;
  ASSERT_EQ(1, rewriteSequenceParameters(encoded(kVariants[0]), kCodes, facts, unit));
  AVCodecContext* decoder = avcodec_alloc_context3(avcodec_find_decoder(AV_CODEC_ID_H264));
  decoder->thread_count = 1;
  ASSERT_EQ(0, avcodec_open2(decoder, nullptr, nullptr));
  AVPacket* packet = packetOf(unit);
  AVFrame* frame = av_frame_alloc();
  EXPECT_EQ(0, avcodec_send_packet(decoder, packet));
  EXPECT_EQ(0, avcodec_receive_frame(decoder, frame));  // no picture is held back
  EXPECT_TRUE(decoder->framerate.num == 30 && decoder->framerate.den == 1);
  EXPECT_TRUE(decoder->sample_aspect_ratio.num == 4 && decoder->sample_aspect_ratio.den == 3);
  EXPECT_TRUE(decoder->color_range == AVCOL_RANGE_MPEG && decoder->colorspace == AVCOL_SPC_BT709);
  EXPECT_TRUE(decoder->color_primaries == AVCOL_PRI_BT709);
  EXPECT_TRUE(decoder->color_trc == AVCOL_TRC_IEC61966_2_1);
  EXPECT_TRUE(decoder->chroma_sample_location == AVCHROMA_LOC_CENTER);
  av_frame_free(&frame);
  av_packet_free(&packet);
  avcodec_free_context(&decoder);
}

// Memory of exactly its size, so that a read past the end is caught where such reads are looked
// for.
TEST(SequenceParametersTest, SurviveDamage) {
  std::mt19937 random(8);
  for (const Variant& variant : kVariants) {
    const Bytes unit = encoded(variant);
    int refused = 0;
    for (int round = 0; round < 3000; ++round) {
      const NalFraming framing = round % 2 == 0 ? kCodes : kLengths;
      Bytes whole = round % 2 == 0 ? unit : withLengths(unit);
      whole.resize(random() % std::min<size_t>(whole.size(), 60) + 1);
      Bytes damaged(whole.begin(), whole.end()), rewritten = {9};
      for (uint32_t flips = random() % 4; flips > 0; --flips) {
        damaged[random() % damaged.size()] ^= static_cast<uint8_t>(1 << random() % 8);
      }
      const int32_t result = rewriteSequenceParameters(damaged, framing, {}, rewritten);
      refused += result == -1 && errno == EBADMSG ? 1 : 0;
      EXPECT_EQ(result != 1, rewritten == Bytes{9});
    }
    EXPECT_LT(0, refused);
  }
  Bytes rewritten;
  const Bytes delta = {0, 0, 1, 0x09, 0x10, 0, 0, 0, 1, 0x41, 7, 0, 0, 1, 0x67, 1, 2, 3};
  EXPECT_EQ(0, rewriteSequenceParameters(delta, kCodes, {}, rewritten));
  EXPECT_EQ(0, rewriteSequenceParameters({}, kLengths, {}, rewritten));
  EXPECT_TRUE(rewritten.empty());
}

}  // namespace
}  // namespace qora::client
