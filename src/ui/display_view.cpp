// The view chosen in the display settings drawn on a surface, and command
// 7260: the picture saved as PNG through the front end's image.
#include <cstdio>

#include "core/data_set.h"
#include "core/messages.h"
#include "survey/survey_text.h"
#include "ui/display_window.h"

int Draw_Display_View(Data_Set &ds, const Draw_Surface &s) {
  Display_Window &w = ds.Dw;
  w.width = s.width;
  w.height = s.height;
  w.status.clear();
  switch (w.type_display) {
  case VIEW_ELECTRODES:
    return Call_DisplayPoint_Draw(ds, s);
  case VIEW_MESH:
    return Plot_SemiStructured_Mesh_Elements(ds, s);
  case VIEW_LCURVE:
    return Draw_Lcurve_Graphs(ds, s);
  default:
    if (w.values.size() < static_cast<size_t>(ds.Model_grid.nmodel_blocks) &&
        Display_Resistivity_Model_Inv_Select(ds, w.iteration, w.quantity == DQ_IP, 0))
      return 1;
    return Display_Sections(ds, s);
  }
}

int Save_Image_Png(Data_Set &ds, const char *path) {
  const Front_End &fe = ds.fe;
  Draw_Surface *s =
      fe.image_surface ? fe.image_surface(fe.image_user, ds.Dw.width, ds.Dw.height) : nullptr;
  if (!s || !path || !*path) {
    show_message(ds, "Error in capturing screen image\n", "Message");
    return 1;
  }
  if (Draw_Display_View(ds, *s))
    return 1;
  if (fe.image_save(fe.image_user, path)) {
    show_message(ds, "Error in capturing screen image\n", "Message");
    return 1;
  }
  Show_Text(ds, "Message", MK_INFORMATION, "Screen image save in file\n%s.", path);
  return 0;
}

int Run_Save_Image(Data_Set &ds, const char *path) {
  const int view = ds.Dw.type_display;
  const bool needs_model = view == VIEW_LAYERS || view == VIEW_XZ || view == VIEW_YZ;
  if (needs_model && ds.Inv_results.nitcount_inv < 1)
    return Refuse_Always(ds, "Message", "You must first read in an inversion results file");
  if (!needs_model && ds.mdata < 1)
    return Refuse_Always(ds, "Message", "You must first read in a data file");
  return Save_Image_Png(ds, path);
}

int Run_Display_Model(Data_Set &ds, const char *) {
  Display_Window &w = ds.Dw;
  if (w.type_display > VIEW_YZ)
    w.type_display = VIEW_LAYERS;
  return Display_Resistivity_Model_Inv_Select(ds, w.iteration, w.quantity == DQ_IP, 0);
}

int Run_Electrode_Misfit(Data_Set &ds, const char *) {
  Display_Window &w = ds.Dw;
  w.type_display = VIEW_ELECTRODES;
  w.color_misfit = 1;
  return Display_Resistivity_Model_Inv_Select(ds, w.iteration, 0, 0);
}
