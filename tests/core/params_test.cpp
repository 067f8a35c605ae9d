// The parameter vocabulary: hand-checked rows of the table, grids and clamps of Set, printing,
// views under the feature word, inheritance down the levels, linked edits, resets and delta edits.
#include <gtest/gtest.h>

#include <cstring>

#include "core/articulation.h"
#include "core/collection.h"
#include "core/param_edit.h"
#include "core/settings.h"

namespace orlin {
namespace {

constexpr uint64_t kAll = ~uint64_t(0);
uint64_t Without(std::initializer_list<int> bits) {
  uint64_t mask = kAll;
  for (int bit : bits) mask &= ~(uint64_t(1) << bit);
  return mask;
}

struct ExpectedRow {
  ParamId id;
  const char* name;
  const char* note;  // null: none
  int kind;
  const char* unit;
  float defaultValue, minValue, maxValue;
  int control;
  int flags;
};

TEST(ParamTable, SpotCheckedRows) {
  const ExpectedRow rows[] = {
      {0, "Master tuning Pitch adjustment", nullptr, 2, "st", 0, -120, 120, 2550, 0x00},
      {1, "Key to Pitch", "Semitones per key, centered on Root key", 2, "st", 1, -12, 12, 2551, 0},
      {13, "Random to Pitch", "Bipolar source", 2, "st", 0, 0, 96, 2565, 0},
      {15, "Velocity to Volume", "Special transform, negative inverts range", 2, "dB", 96, -96, 96, 2517, 0},
      {21, "Aftertrouch to V-LFO to Volume", nullptr, 2, "dB", 0, -96, 96, 2524, 0},
      {23, "Filter type", nullptr, 18, "", 0, 0, 12, 2601, 0x06},
      {24, "Filter Cutoff frequency", nullptr, 3, "Hz", 8000, 8, 48000, 2627, 0x04},
      {42, "EQ 1 Q-value", "Band-width is a function of Center frequency / Q", 2, "x", 0.71f, 0.01f, 10, 2714, 0x04},
      {51, "Pan position", "-100% = full left | 0% = centered | +100% = full right", 6, "%", 0, -1, 1, 2740, 0},
      {63, "Send channel 3 level", nullptr, 6, "%", 0, 0, 1, 2813, 0},
      {64, "CC94 to Send channel 3 level", nullptr, 6, "%", 1, 0, 1, 2829, 0},
      {66, "P-LFO Frequency", nullptr, 5, "Hz", 5, 0.01f, 110, 2581, 0},
      {71, "V-LFO Delay Time", nullptr, 5, "s", 0, 0, 10, 2586, 0},
      {77, "F-LFO Wave Shape", nullptr, 16, "", 0, 0, 255, 2585, 0x04},
      {83, "V-ENV Velocity to Attack 1 Time", "Time-quotient max/min velocity", 5, "x", 1, 0.015625f, 64, 4020, 0x08},
      {89, "V-ENV Attack 2 Level", nullptr, 8, "dB", 1, 0, 1, 4008, 0x0C},
      {97, "V-ENV Sustain", "Decay 2 Level", 8, "dB", 1, 0, 1, 4012, 0x0C},
      {106, "V-ENV Release Mode", "Ignore note-off | One-shot mode", 17, "", 0, 0, 1, 4032, 0x0E},
      {107, "Shutdown Rate", "On note or key-exclusion, time from full volume to silent", 5, "s", 0.015f, 0, 100, 4019, 0x08},
      {108, "P-ENV Initial Level", nullptr, 6, "%", 0, -1, 1, 4004, 0x0C},
      {124, "P-ENV Sustain", "Decay 2 Level", 6, "%", 1, -1, 1, 4012, 0x0C},
      {134, "", nullptr, 0, "", 0, 0, 0, 0, 0},
      {147, "F-ENV Decay 1 Level", nullptr, 6, "%", 1, -1, 1, 4010, 0x0C},
      {178, "X-ENV Sustain | Decay 2 Level", nullptr, 6, "%", 1, -1, 1, 4012, 0x0C},
      {179, "X-ENV Release 1 Rate", "Note: Time = Rate * Delta-Level", 5, "s", 0, 0, 100, 4013, 0x0C},
      {188, "", nullptr, 0, "", 0, 0, 0, 0, 0},
      {191, "Trigger hi-ley", "Highest key played", 13, "", 127, 0, 127, 2412, 0x10},
      {193, "Trigger hi-velocity", "Highest velocity payed", 4, "", 127, 0, 127, 2414, 0x10},
      {202, "Key exclusion group", "0 = none", 9, "", 0, 0, 65535, 2416, 0},
      {204, "Loop type", "Off/One-shot | Forward/Normal | Reverse/Backwards | Alternating/Ping-Pong/Bi-directional", 20, "", 0, 0, 3, 2369, 0x42},
      {207, "Loop end point", "First wavesample *after* the loop range", 2, "", 0, 0, 1e20f, 2368, 0x40},
      {216, "Image", "Album cover", 12, "", 0, 0, 0, 2087, 0},
      {218, "Root key", "Key number that plays at the original pitch", 13, "", 60, 0, 127, 2302, 0x60},
      {221, "Preferred data format for saving", "To create files with mixed data types use \"Auto\" as data format when saving", 25, "", 1, 0, 21, 2305, 0},
      {224, "Waveform end address offset", "NB; only negative values of zero allowed", 4, "", 0, -1000000, 0, 2857, 0x40},
      {226, "Region is \"phase master\"", "Phase master controls the pitch of the phase group", 10, "", 0, 0, 1, 2865, 0},
      {230, "MIDI Program Change number", "Here numbered 0..127, some say 1..128", 4, "", 0, 0, 127, 2103, 0x02},
  };
  for (const ExpectedRow& expected : rows) {
    SCOPED_TRACE(expected.id);
    const ParamInfo* row = GetParamRow(expected.id);
    ASSERT_NE(row, nullptr);
    EXPECT_EQ(row->id, expected.id);
    EXPECT_STREQ(row->name, expected.name);
    if (expected.note) EXPECT_STREQ(row->note, expected.note);
    else EXPECT_EQ(row->note, nullptr);
    EXPECT_EQ(row->kind, expected.kind);
    EXPECT_STREQ(UnitLabel(row->unit), expected.unit);
    EXPECT_EQ(row->defaultValue, expected.defaultValue);
    EXPECT_EQ(row->minValue, expected.minValue);
    EXPECT_EQ(row->maxValue, expected.maxValue);
    EXPECT_EQ(row->control, expected.control);
    EXPECT_EQ(row->flags, expected.flags);
  }
  EXPECT_EQ(GetParamRow(kParamCount), nullptr);
  for (ParamId id = 0; id < kParamCount; ++id) EXPECT_EQ(GetParamRow(id)->id, id);
}

TEST(ParamTable, EffectRowsFollowTheSlotType) {
  // Slot 1 (ids 239-246) as a reverb: view 1 is "Room size", control moved by 20.
  const ParamInfo* room = EffectView(240, 2, true);
  EXPECT_STREQ(room->name, "Room size");
  EXPECT_EQ(room->id, 240);
  EXPECT_EQ(room->control, 3021);
  EXPECT_EQ(EffectView(239, 5, false)->kind, kKindEffectType);
  EXPECT_STREQ(EffectView(255, 3, true)->name, "Channel FX type");
  EXPECT_STREQ(EffectView(232, 7, true)->name, "Shape");
  EXPECT_STREQ(EffectView(232, 7, true)->note, "0=Sine, 1=Triangle, 3=S&H, 6=Saw+, 7=Saw-");
  EXPECT_EQ(EffectView(233, 1, true)->note, nullptr);
  // The gate rows of the reverb vanish while the gate is off.
  EXPECT_EQ(EffectView(234, 2, false)->kind, kKindNone);
  EXPECT_EQ(EffectView(234, 2, true)->kind, kKindEffectTime);
  EXPECT_EQ(EffectView(236, 1, true)->kind, kKindNone);  // chorus has no view 5

  Collection collection;
  auto* instrument = new Instrument(&collection);
  instrument->SetParam(247, 3);  // slot 2: delay
  EXPECT_STREQ(instrument->GetParamInfo(248)->name, "Delay time");
  instrument->SetParam(248, 9.0f);  // clamped to the delay's 4 s
  EXPECT_FLOAT_EQ(instrument->GetParam(248), 4.0f);
}

TEST(ParamArticulation, GridsAndClamps) {
  Articulation art;
  art.Set(24, 23999.97f);
  EXPECT_EQ(art.Get(24), 24000.0f);
  art.Set(2, 0.004f);
  EXPECT_EQ(art.Get(2), 0.0f);
  art.Set(2, -0.005f);  // symmetric: half a step away from zero
  EXPECT_FLOAT_EQ(art.Get(2), -0.01f);
  art.Set(66, 9.9996f);  // kind 5 below 10: 0.001 grid
  EXPECT_EQ(art.Get(66), 10.0f);
  art.Set(66, 10.004f);  // from 10 up: 0.01 grid
  EXPECT_EQ(art.Get(66), 10.0f);
  art.Set(66, 1.2345f);
  EXPECT_FLOAT_EQ(art.Get(66), 1.235f);
  art.Set(14, 500.0f);
  EXPECT_EQ(art.Get(14), 96.0f);
  art.Set(24, 1.0f);
  EXPECT_EQ(art.Get(24), 8.0f);
  EXPECT_TRUE(art.IsSet(24));
  art.Inherit(24, 123.456f);  // no rounding on the way down
  EXPECT_EQ(art.Get(24), 123.456f);
  EXPECT_FALSE(art.IsSet(24));

  Collection collection;
  auto* region = new Region(&collection);
  region->SetParam(224, 500.0f);  // only zero or negative end offsets
  EXPECT_EQ(region->GetParam(224), 0.0f);
  region->SetParam(224, -40.0f);
  EXPECT_EQ(region->GetParam(224), -40.0f);
}

TEST(ParamArticulation, FillDropCopyAndLevelUse) {
  Articulation parent;
  parent.Set(14, -6.0f);
  Articulation child;
  child.Set(0, 2.0f);
  EXPECT_TRUE(child.FillFrom(parent));
  EXPECT_EQ(child.Get(14), -6.0f);
  EXPECT_FALSE(child.FillFrom(parent));
  child.Set(15, parent.Get(15));  // equal to the parent: kept until DropEqual
  EXPECT_TRUE(child.IsSet(15));
  EXPECT_TRUE(child.DropEqual(parent));
  EXPECT_FALSE(child.IsSet(15));
  EXPECT_TRUE(child.IsSet(0));

  Articulation copy;
  copy.CopyRange(child, 0, 14, parent.Values());
  EXPECT_TRUE(copy.IsSet(0));
  EXPECT_FALSE(copy.IsSet(1));

  // Filter rows count for nothing under a pass-through filter.
  Articulation filter;
  filter.Set(24, 1000.0f);
  EXPECT_FALSE(filter.IsLevelUsed());
  filter.Set(23, 2.0f);
  EXPECT_TRUE(filter.IsLevelUsed());

  EnvelopeRecord envelope = filter.GetEnvelope(2);
  envelope.times[0] = 0.5f;
  filter.SetEnvelope(2, envelope);
  EXPECT_TRUE(filter.HasEnvelope(2));
  EXPECT_FALSE(filter.HasEnvelope(1));
  EXPECT_EQ(filter.Get(136), 0.5f);  // F-ENV Attack 1 Time
}

TEST(ParamPrint, KindsPrintAsThePaneShowsThem) {
  EXPECT_EQ(FormatParamValue(*GetParamRow(51), -0.5f), "-50.0 %");
  EXPECT_EQ(FormatParamValue(*GetParamRow(24), 8000.0f), "8000.0");
  EXPECT_EQ(FormatParamValue(*GetParamRow(66), 12.5f), "12.5");
  EXPECT_EQ(FormatParamValue(*GetParamRow(218), 60.0f), "C4");
  EXPECT_EQ(FormatParamValue(*GetParamRow(218), 60.0f, true), "C3");
  EXPECT_EQ(FormatParamValue(*GetParamRow(190), 0.0f), "C-1");
  EXPECT_EQ(FormatParamValue(*GetParamRow(23), 2.0f), "Low-Pass 12 dB/oct");
  EXPECT_EQ(FormatParamValue(*GetParamRow(65), 66.0f), "Square+");
  EXPECT_EQ(FormatParamValue(*GetParamRow(189), 5.0f), "Alternate Gr.4");
  EXPECT_EQ(FormatParamValue(*GetParamRow(226), 1.0f), "on");
}

TEST(ParamViews, FeatureWordRenamesModulators) {
  EXPECT_STREQ(ArticulationView(19, Without({15}))->name, "M-LFO to Volume");
  EXPECT_STREQ(ArticulationView(3, Without({15}))->name, "P-LFO to Pitch");   // pitch LFO kept with 14
  EXPECT_STREQ(ArticulationView(3, Without({14, 15}))->name, "M-LFO to Pitch");
  EXPECT_STREQ(ArticulationView(33, Without({20}))->name, "M-ENV to Filter Cutoff");
  EXPECT_STREQ(ArticulationView(19, kAll)->name, "V-LFO to Volume");
  EXPECT_EQ(LoopView(206, Without({7}))->kind, kKindWhole);
  EXPECT_EQ(LoopView(206, kAll)->kind, kKindSigned);
}

class ParamEdits : public ::testing::Test {
 protected:
  Collection collection;
  Instrument* instrument = new Instrument(&collection);
  Region* region = instrument->AddRegion(kNoWave, kFullRange, kFullRange, -1);
  Layer* layer = collection.Find<Layer>(region->parentId);
};

TEST_F(ParamEdits, LinkedLfoEdits) {
  const uint64_t features = Without({15});  // 14 on: the pitch LFO stands apart
  EditParam(*region, 66, 7.0f, features);  // P-LFO Frequency
  EXPECT_EQ(region->GetParam(70), 5.0f);
  EXPECT_EQ(region->GetParam(78), 5.0f);
  EditParam(*region, 70, 3.0f, features);  // V-LFO Frequency
  EXPECT_EQ(region->GetParam(74), 3.0f);
  EXPECT_EQ(region->GetParam(78), 3.0f);
  EXPECT_EQ(region->GetParam(66), 7.0f);
  // Without feature 14 all four run alike.
  EditParam(*region, 70, 2.0f, Without({14, 15}));
  EXPECT_EQ(region->GetParam(66), 2.0f);
}

TEST_F(ParamEdits, ReleaseLevelsFollowAndEnvelopesFold) {
  EditParam(*region, 99, 0.5f, Without({23}));
  EXPECT_EQ(region->GetParam(101), 0.5f);
  EXPECT_EQ(region->GetParam(103), 0.5f);
  EditParam(*region, 99, 0.25f, kAll);
  EXPECT_EQ(region->GetParam(101), 0.5f);
  // Feature 19 on, 20 off: the four envelopes run alike.
  EditParam(*region, 109, 1.5f, Without({20}));  // P-ENV Attack 1 Time
  EXPECT_EQ(region->GetParam(82), 1.5f);
  EXPECT_EQ(region->GetParam(136), 1.5f);
  EXPECT_EQ(region->GetParam(163), 1.5f);
}

TEST_F(ParamEdits, ResetAndRefill) {
  EditParam(*instrument, 14, -12.0f, kAll);
  EXPECT_EQ(region->GetParam(14), -12.0f);  // refilled down
  EditParam(*region, 14, -3.0f, kAll);
  EditParam(*instrument, 14, -20.0f, kAll);
  EXPECT_EQ(layer->GetParam(14), -20.0f);
  EXPECT_EQ(region->GetParam(14), -3.0f);  // an override stays
  EditParam(*region, 14, kResetValue, kAll);
  EXPECT_FALSE(region->IsParamSet(14));
  EXPECT_EQ(region->GetParam(14), -20.0f);
  EditParam(*instrument, 14, kResetValue, kAll);
  EXPECT_EQ(region->GetParam(14), 0.0f);
}

TEST_F(ParamEdits, DeltaMode) {
  EditParam(*region, 14, -6.0f, kAll);
  EditParamOnSelection({instrument}, 14, 3.0f, true, kAll);  // delta +3
  EXPECT_EQ(instrument->GetParam(14), 3.0f);
  EXPECT_EQ(region->GetParam(14), -3.0f);
  EXPECT_EQ(layer->GetParam(14), 3.0f);  // did not set it: inherits

  // Two regions of different values: a plain edit.
  Region* other = instrument->AddRegion(kNoWave, PackRange(0, 10), kFullRange, -1, 1);
  EditParam(*other, 14, 1.0f, kAll);
  EditParamOnSelection({region, other}, 14, 5.0f, true, kAll);
  EXPECT_EQ(region->GetParam(14), 5.0f);
  EXPECT_EQ(other->GetParam(14), 5.0f);
}

TEST(ParamMerge, MeansAndCountedModes) {
  Articulation a, b, c;
  a.Set(14, -1.0f);
  b.Set(14, -2.0f);
  c.Set(14, -4.0f);
  a.Set(65, 64 + 2);  // Square+
  b.Set(65, 2);
  c.Set(65, 64 + 1);
  const Articulation merged = MergeArticulations({&a, &b, &c});
  EXPECT_FLOAT_EQ(merged.Get(14), -2.333f);
  EXPECT_EQ(merged.Get(65), 66.0f);  // square most often, positive in two of three
  EXPECT_EQ(MergeArticulations({}).Get(24), 8000.0f);
}

}  // namespace
}  // namespace orlin

namespace orlin {
namespace {

TEST(ParamMerge, LfosFoldIntoFewerSlots) {
  Articulation art;
  art.Set(19, 3.0f);   // V-LFO to volume
  art.Set(3, 0.5f);    // P-LFO to pitch, same shape and rate: joins the V-LFO's slot
  art.Set(29, 12.0f);  // F-LFO to cutoff, strongest, but another rate
  art.Set(74, 2.0f);
  std::vector<MergedLfo> slots = MergeLfos(art, 2, kReachPitchLfo | kReachVolumeLfo | kReachFilterLfo, kReachFilterLfo);
  ASSERT_EQ(slots.size(), 2u);
  EXPECT_EQ(slots[0].lfo.frequency, 2.0f);
  EXPECT_EQ(slots[0].toCutoff[0], 12.0f);
  EXPECT_EQ(slots[0].toVolume[0], 0.0f);
  // The second slot reaches only the filter, and the F-LFO is used up.
  EXPECT_TRUE(slots[1].empty);

  slots = MergeLfos(art, 1, kReachPitchLfo | kReachVolumeLfo, 0);
  EXPECT_EQ(slots[0].toVolume[0], 3.0f);
  EXPECT_EQ(slots[0].toPitch[0], 0.5f);
  EXPECT_TRUE(MergeLfos(Articulation(), 1, 31, 31)[0].empty);
}

}  // namespace
}  // namespace orlin

namespace orlin {
namespace {

TEST(MergeEnvelopes, SharedTimingJoinsOneSlotAndTheStrongestLeads) {
  Articulation art;
  EnvelopeRecord slow = art.GetEnvelope(1);
  slow.times[0] = 0.5f;  // attack 1
  slow.times[2] = 1.0f;  // decay 1
  slow.levels[4] = 0.5f;  // sustain
  art.SetEnvelope(1, slow);  // P-ENV
  art.SetEnvelope(2, slow);  // F-ENV, the same shape
  art.Set(11, 12.0f);        // P-ENV to pitch
  art.Set(33, 24.0f);        // F-ENV to cutoff
  std::vector<MergedEnvelope> slots = MergeEnvelopes(art, 2, kReachPitchEnvelope | kReachFilterEnvelope,
                                                     kReachPitchEnvelope | kReachFilterEnvelope);
  ASSERT_EQ(slots.size(), 2u);
  EXPECT_FALSE(slots[0].empty);
  EXPECT_FLOAT_EQ(slots[0].toPitch[0], 12.0f);
  EXPECT_FLOAT_EQ(slots[0].toCutoff[0], 24.0f);
  EXPECT_TRUE(slots[1].empty) << "everything joined the first slot";

  // A filter envelope 0.2 s slower in its attack no longer joins: it leads the first slot (stronger),
  // the pitch envelope takes the second, and with one slot only the pitch depth is lost.
  EnvelopeRecord slower = slow;
  slower.times[0] = 0.7f;
  art.SetEnvelope(2, slower);
  slots = MergeEnvelopes(art, 2, kReachPitchEnvelope | kReachFilterEnvelope, kReachPitchEnvelope);
  EXPECT_FLOAT_EQ(slots[0].envelope.times[0], 0.7f);
  EXPECT_FLOAT_EQ(slots[0].toCutoff[0], 24.0f);
  EXPECT_FLOAT_EQ(slots[0].toPitch[0], 0.0f);
  EXPECT_FLOAT_EQ(slots[1].toPitch[0], 12.0f);
  EXPECT_FLOAT_EQ(slots[1].envelope.times[0], 0.5f);
  slots = MergeEnvelopes(art, 1, kReachPitchEnvelope | kReachFilterEnvelope, 0);
  ASSERT_EQ(slots.size(), 1u);
  EXPECT_FLOAT_EQ(slots[0].toPitch[0], 0.0f);
  // Times within a twentieth of a second round to the same tenth and still join.
  slower.times[0] = 0.52f;
  art.SetEnvelope(2, slower);
  slots = MergeEnvelopes(art, 1, kReachPitchEnvelope | kReachFilterEnvelope, 0);
  EXPECT_FLOAT_EQ(slots[0].toPitch[0], 12.0f);
}

}  // namespace
}  // namespace orlin
