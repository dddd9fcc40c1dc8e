// cfObject.h -- what the objects of the frameworks' stand-ins have in common: they are counted.
#pragma once

struct CfObject {
  CfObject();
  CfObject(const CfObject &) = delete;
  CfObject &operator=(const CfObject &) = delete;
  virtual ~CfObject();
};
